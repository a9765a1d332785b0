// The running configuration on libyang, and the commits that change it. A commit copies only
// the list entries it touches (the first list entry on each edited path), validates those, and
// diffs them against their running versions, so its cost follows the size of the change and not
// of the configuration. Edits that reach above any list entry, and replace loads, work on the
// whole tree. Owned and used by the server's one thread.
#pragma once

#include <libyang/libyang.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "element/mgmt/byte_limits.h"
#include "element/mgmt/data_path.h"
#include "element/mgmt/diff.h"
#include "element/mgmt/entry_key.h"
#include "element/mgmt/journal.pb.h"
#include "element/mgmt/mgmt.pb.h"

namespace pbr::mgmt {

struct CommitError {
  std::string message;
  std::string path;
};

// A prepared commit: either the whole new configuration, or the new versions of the list
// entries it touches (null: deleted), held by `tree`.
class Candidate {
 public:
  Candidate() = default;
  ~Candidate() { lyd_free_siblings(tree); }
  Candidate(const Candidate&) = delete;
  Candidate& operator=(const Candidate&) = delete;

  bool whole = false;
  lyd_node* tree = nullptr;
  // A whole candidate's configuration as RFC 7951 JSON when the commit brought it that way (a
  // JSON replace load), so that the journal need not print it again.
  std::string json;
  std::map<const lysc_node*, std::map<EntryKey, lyd_node*>> entries;
};

// Applies one edit operation to the tree whose first top-level sibling is *tree, without
// validating the result.
bool ApplyEditOperation(ly_ctx* ctx, lyd_node** tree, const EditOperation& op, const DataPath& path,
                        CommitError* error);

// How a commit changes the rules.
struct ChangeCounts {
  uint64_t added = 0;
  uint64_t changed = 0;
  uint64_t deleted = 0;
};

class Datastore {
 public:
  // `ctx` holds the annotated PBR module and outlives the datastore.
  explicit Datastore(ly_ctx* ctx);
  ~Datastore();
  Datastore(const Datastore&) = delete;
  Datastore& operator=(const Datastore&) = delete;

  // Replaces the running configuration with a stored JSON document, validated; at start-up.
  bool LoadRunning(std::string_view json, CommitError* error);

  // Holds a configuration stored before byte limits were enforced to them, at start-up: cuts
  // over-long leaf values (listed in *cut, for the log); false with *error naming a value that
  // cannot be cut.
  bool FitStored(std::vector<CutValue>* cut, CommitError* error);

  // A validated candidate from operator edits or a document; null with *error when the result
  // would be invalid. Nothing changes until Apply.
  std::unique_ptr<Candidate> Prepare(const Edit& edit, CommitError* error);
  std::unique_ptr<Candidate> Prepare(Load load, CommitError* error);
  // A validated candidate from new versions of list entries (`tree`, taken) and the data paths
  // of entries to delete (those not running are left alone); `validated`: ValidateEntries
  // passed `tree` as it is.
  std::unique_ptr<Candidate> PrepareEntries(lyd_node* tree, const std::vector<std::string>& deleted,
                                            CommitError* error, bool validated = false);

  // Parses a document of list entries below top-level containers (SetEntries), without
  // validating it; refused when it holds anything else.
  bool ParseEntries(const std::string& json, lyd_node** tree, CommitError* error) const;
  // Whether a tree holds only list entries below top-level containers of the configuration.
  bool CheckEntries(const lyd_node* tree, CommitError* error) const;
  // Validates a tree of list entries on its own, as a partial commit does.
  bool ValidateEntries(lyd_node** tree, CommitError* error) const;

  // Calls `visit` with the running and the new version (either may be null) of every list entry
  // the candidate changes, in key order for partial candidates.
  void ForEachChange(const Candidate& candidate,
                     const std::function<void(const lyd_node*, const lyd_node*)>& visit) const;
  ChangeCounts Count(const Candidate& candidate) const;

  // The libyang data paths of the list entries `keypaths` name; false with *error naming the
  // first keypath that names no list entry.
  template <typename Keypaths>
  bool EntryPaths(const Keypaths& keypaths, std::vector<std::string>* paths,
                  CommitError* error) const {
    for (const std::string& keypath : keypaths) {
      DataPath path;
      std::string why;
      if (!ParseDataPath(module_, keypath, &path, &why) || !path.isEntry) {
        *error = {why.empty() ? "not a list entry" : why, keypath};
        return false;
      }
      paths->push_back(std::move(path.entryPath));
    }
    return true;
  }

  // The running entry or node at a libyang data path; null when there is none.
  lyd_node* Find(const std::string& path) const;

  // The candidate's changes against the running configuration, in ConfD's diff order.
  void Diff(const Candidate& candidate, ChangeList* out) const;

  // Makes the candidate the running configuration.
  void Apply(std::unique_ptr<Candidate> candidate);

  // What the journal keeps of a candidate: taken before Apply. Takes the candidate's JSON text.
  JournalRecord Record(Candidate* candidate) const;
  // Applies a journal record to the running configuration, at start-up.
  bool Replay(const JournalRecord& record, CommitError* error);

  // The running configuration as the ServerMessage (encoded) of an AttachReply with sequence
  // number `seq`, lists in key order, after `headroom` bytes left for the caller.
  std::string AttachMessage(uint64_t seq, size_t headroom = 0) const;
  // A copy of the whole running configuration, owned by the caller.
  lyd_node* CopyRunning() const;
  // The running configuration as RFC 7951 JSON; `compact`: without indentation and newlines.
  std::string RunningJson(bool compact = false) const;
  std::string RunningXml() const;

  // The running entries of a list directly below a top-level container, in key order.
  std::vector<const lyd_node*> Entries(const lysc_node* list) const;

  const lys_module* module() const { return module_; }
  // Counts the commits applied: equal counts mean an unchanged running configuration.
  uint64_t generation() const { return generation_; }
  // The generation of the last commit that set or deleted the list entry `entry` names (any
  // version of it: its schema and keys); 0 for none since the server started.
  uint64_t ChangedAt(const lyd_node* entry) const;

 private:
  using Index = std::map<EntryKey, lyd_node*>;
  static bool IsUnitList(const lysc_node* list);
  lyd_node* TopContainer(const lysc_node* schema) const;
  void Reindex();
  CommitError LastError(std::string_view fallback) const;
  // The error of a failed parse; a refused key value is named with its entry's key.
  CommitError ParseError() const;
  // The error of a replace document that failed to parse and validate.
  CommitError ReplaceError(const std::string& data, LYD_FORMAT format) const;
  // The error of a failed validation of `tree`, its path naming the list entry at fault.
  CommitError ValidationError(lyd_node* tree) const;
  // `validated`: the tree was validated as it was parsed.
  std::unique_ptr<Candidate> PrepareWhole(lyd_node* tree, CommitError* error,
                                          bool validated = false);
  // False with *error naming the first value of `tree` over its byte limit.
  bool FitsBytes(const lyd_node* tree, CommitError* error) const;
  // Leaves out of a partial candidate the entries equal to their running versions, so that
  // neither the journal nor the running tree spends work on them.
  void DropUnchanged(Candidate* candidate) const;

  // Validates a partial candidate's tree (unless `validated`) and indexes its entries.
  bool FinishPartial(Candidate* candidate, CommitError* error, bool validated = false) const;

  ly_ctx* ctx_;
  const lys_module* module_;
  lyd_node* running_ = nullptr;  // first top-level sibling
  uint64_t generation_ = 0;
  // Each running entry holds the generation that set it in its `priv`; deletions are kept here,
  // and a whole replace counts as a change of every entry.
  std::map<const lysc_node*, std::map<EntryKey, uint64_t>> deletedAt_;
  uint64_t wholeAt_ = 0;
  // Entries of each list below a top-level container, in key order.
  std::map<const lysc_node*, Index> index_;
};

}  // namespace pbr::mgmt
