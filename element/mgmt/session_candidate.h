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

  // The rules the candidate changes that running no longer holds as the base did: keypaths.
  std::vector<std::string> Conflicts() const;

  // The validated commit of the candidate against the running configuration; the candidate
  // itself stays until Clear.
  std::unique_ptr<Candidate> Prepare(CommitError* error) const;

  // Takes a new base from the current running configuration and applies the edits again.
  bool Update(CommitError* error);

  std::vector<ChangeLine> Changes() const { return TreeChanges(base_, work_); }
  bool empty() const { return ops_.empty(); }
  void Clear();

 private:
  // The entry at `path` in `tree`, null when absent.
  static lyd_node* FindIn(lyd_node* tree, const std::string& path);
  // Moves the copy of `entry` (null: none) to `tree` in place of what it holds at `path`.
  void Replace(lyd_node** tree, const std::string& path, lyd_node* entry);

  ly_ctx* ctx_;
  Datastore* store_;
  std::vector<EditOperation> ops_;
  std::vector<std::string> touched_;  // entry paths, in the order first touched
  lyd_node* base_ = nullptr;
  lyd_node* work_ = nullptr;
};

}  // namespace pbr::mgmt
