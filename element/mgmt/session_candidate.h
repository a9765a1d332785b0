// The candidate of one edit session: the rules it touches, as they were in the running
// configuration when first touched (the base) and with the session's edits applied (the work
// copy). Its size follows the edits, not the configuration. A commit applies the work copy to
// the current running configuration, refused while any rule the candidate changes has been
// changed by another commit since its base was taken; Update rebases. Edits that reach above the
// rules (a whole list or container) are not taken: those are one-shot commits or loads.
#pragma once

#include <libyang/libyang.h>

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "element/mgmt/change_text.h"
#include "element/mgmt/datastore.h"

namespace pbr::mgmt {

class SessionCandidate {
 public:
  SessionCandidate(ly_ctx* ctx, Datastore* store) : ctx_(ctx), store_(store) {}
  ~SessionCandidate();
  SessionCandidate(const SessionCandidate&) = delete;
  SessionCandidate& operator=(const SessionCandidate&) = delete;

  // Adds the operations, all or none; the result is validated only at commit.
  bool Edit(const google::protobuf::RepeatedPtrField<EditOperation>& ops, CommitError* error);

  // Sets whole entries (`tree`, taken: list entries below top-level containers, as
  // Datastore::CheckEntries admits) and removes others, all or none; with `validate` the entries
  // are validated now. `json`: the entries' document, which Update replays; without it the
  // candidate can no longer be rebased.
  bool SetEntries(lyd_node* tree, const std::string& json, const std::vector<std::string>& deleted,
                  bool validate, CommitError* error);

  // The candidate's version of the entry at a data path: *touched tells whether the candidate
  // holds one (null: deleted or absent); else the running one applies.
  const lyd_node* Entry(const std::string& path, bool* touched) const;
  // The entries the candidate touched, as data paths.
  const std::vector<std::string>& Touched() const { return touched_; }

  // The rules the candidate changes that running no longer holds as the base did: keypaths.
  std::vector<std::string> Conflicts() const;

  // The validated commit of the candidate against the running configuration; the candidate
  // itself stays until Clear. With `take`, a candidate validated as it was set gives its work
  // copy away instead of copying it: only for a commit that cannot be refused, Clear follows.
  std::unique_ptr<Candidate> Prepare(CommitError* error, bool take = false);

  // Takes a new base from the current running configuration and applies the edits again.
  bool Update(CommitError* error);

  std::vector<ChangeLine> Changes() const { return TreeChanges(base_, work_); }
  bool empty() const { return steps_.empty(); }
  void Clear();

 private:
  // The entry at `path` in `tree`, null when absent.
  static lyd_node* FindIn(lyd_node* tree, const std::string& path);
  // Moves the copy of `entry` (null: none) to `tree` in place of what it holds at `path`.
  void Replace(lyd_node** tree, const std::string& path, lyd_node* entry);

  // Takes the running version of the entry at `path` as its base when first touched.
  void Touch(const std::string& path);

  // One edit as received, replayed by Update: operations, or whole entries set and removed.
  struct Step {
    std::vector<EditOperation> ops;
    std::string json;
    std::vector<std::string> deleted;
    bool replayable = true;
  };

  ly_ctx* ctx_;
  Datastore* store_;
  std::vector<Step> steps_;
  std::vector<std::string> touched_;  // entry paths, in the order first touched
  // The running configuration's generation when the first entry was touched: while it stands,
  // no commit can have changed a touched entry.
  uint64_t generation_ = 0;
  // Whether the work copy is one SetEntries document validated as it was set.
  bool validated_ = false;
  std::set<std::string> touchedSet_;
  lyd_node* base_ = nullptr;
  lyd_node* work_ = nullptr;
};

}  // namespace pbr::mgmt
