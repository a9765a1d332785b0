#include "element/mgmt/session_candidate.h"

#include <algorithm>
#include <set>

namespace pbr::mgmt {
namespace {

constexpr uint32_t kCopy = LYD_DUP_RECURSIVE | LYD_DUP_WITH_FLAGS | LYD_DUP_WITH_PARENTS;

// A copy of `entry` with its parents, linked into `*tree`.
void CopyInto(lyd_node** tree, const lyd_node* entry) {
  lyd_node* copy = nullptr;
  if (lyd_dup_single(entry, nullptr, kCopy, &copy) != LY_SUCCESS) return;
  lyd_node* top = copy;
  while (lyd_parent(top)) top = lyd_parent(top);
  if (!*tree) {
    *tree = top;
    return;
  }
  lyd_merge_siblings(tree, top, LYD_MERGE_DESTRUCT | LYD_MERGE_WITH_FLAGS);
}

}  // namespace

SessionCandidate::~SessionCandidate() {
  Clear();
}

void SessionCandidate::Clear() {
  lyd_free_siblings(base_);
  lyd_free_siblings(work_);
  base_ = work_ = nullptr;
  ops_.clear();
  touched_.clear();
}

lyd_node* SessionCandidate::FindIn(lyd_node* tree, const std::string& path) {
  lyd_node* match = nullptr;
  if (!tree || lyd_find_path(tree, path.c_str(), 0, &match) != LY_SUCCESS) return nullptr;
  return match;
}

void SessionCandidate::Replace(lyd_node** tree, const std::string& path, lyd_node* entry) {
  if (lyd_node* old = FindIn(*tree, path)) lyd_free_tree(old);
  if (entry) CopyInto(tree, entry);
}

bool SessionCandidate::Edit(const google::protobuf::RepeatedPtrField<EditOperation>& ops,
                            CommitError* error) {
  ly_err_clean(ctx_, nullptr);
  std::vector<DataPath> paths(static_cast<size_t>(ops.size()));
  for (int i = 0; i < ops.size(); ++i) {
    std::string why;
    if (!ParseDataPath(store_->module(), ops[i].path(), &paths[i], &why)) {
      *error = {why, ops[i].path()};
      return false;
    }
    if (paths[i].entryPath.empty()) {
      *error = {
          "a candidate edits rules one by one; commit this at once (without the shell) "
          "or load a document",
          ops[i].path()};
      return false;
    }
  }
  // The operations work on copies of the entries they touch, which replace those of the work
  // copy only when every operation applied.
  lyd_node* trial = nullptr;
  std::vector<std::string> entries, fresh;
  for (const DataPath& path : paths) {
    if (std::find(entries.begin(), entries.end(), path.entryPath) != entries.end()) continue;
    entries.push_back(path.entryPath);
    const bool known =
        std::find(touched_.begin(), touched_.end(), path.entryPath) != touched_.end();
    if (!known) fresh.push_back(path.entryPath);
    const lyd_node* from = known ? FindIn(work_, path.entryPath) : store_->Find(path.entryPath);
    if (from) CopyInto(&trial, from);
  }
  for (int i = 0; i < ops.size(); ++i) {
    if (!ApplyEditOperation(ctx_, &trial, ops[i], paths[i], error)) {
      lyd_free_siblings(trial);
      return false;
    }
  }
  for (const std::string& path : fresh) {
    if (const lyd_node* running = store_->Find(path)) CopyInto(&base_, running);
    touched_.push_back(path);
  }
  for (const std::string& path : entries) Replace(&work_, path, FindIn(trial, path));
  lyd_free_siblings(trial);
  ops_.insert(ops_.end(), ops.begin(), ops.end());
  return true;
}

std::vector<std::string> SessionCandidate::Conflicts() const {
  std::vector<std::string> out;
  for (const std::string& path : touched_) {
    const lyd_node* base = FindIn(base_, path);
    const lyd_node* work = FindIn(work_, path);
    const bool changes =
        (base != nullptr) != (work != nullptr) ||
        (base && lyd_compare_single(base, work, LYD_COMPARE_FULL_RECURSION) != LY_SUCCESS);
    if (!changes) continue;  // the candidate leaves this rule as it found it
    const lyd_node* running = store_->Find(path);
    const bool same = (base == nullptr && running == nullptr) ||
                      (base && running &&
                       lyd_compare_single(base, running, LYD_COMPARE_FULL_RECURSION) == LY_SUCCESS);
    if (!same) out.push_back(Keypath(base ? base : running));
  }
  return out;
}

std::unique_ptr<Candidate> SessionCandidate::Prepare(CommitError* error) const {
  lyd_node* tree = nullptr;
  std::vector<std::string> deleted;
  for (const std::string& path : touched_) {
    if (const lyd_node* work = FindIn(work_, path)) {
      CopyInto(&tree, work);
    } else {
      deleted.push_back(path);
    }
  }
  return store_->PrepareEntries(tree, deleted, error);
}

bool SessionCandidate::Update(CommitError* error) {
  SessionCandidate rebased(ctx_, store_);
  google::protobuf::RepeatedPtrField<EditOperation> ops(ops_.begin(), ops_.end());
  if (!ops.empty() && !rebased.Edit(ops, error)) return false;
  std::swap(base_, rebased.base_);
  std::swap(work_, rebased.work_);
  std::swap(ops_, rebased.ops_);
  std::swap(touched_, rebased.touched_);
  return true;
}

}  // namespace pbr::mgmt
