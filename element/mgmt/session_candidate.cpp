#include "element/mgmt/session_candidate.h"

#include <algorithm>
#include <set>
#include <utility>

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
  steps_.clear();
  touched_.clear();
  touchedSet_.clear();
  validated_ = false;
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
    const bool known = touchedSet_.count(path.entryPath) > 0;
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
  for (const std::string& path : fresh) Touch(path);
  for (const std::string& path : entries) Replace(&work_, path, FindIn(trial, path));
  lyd_free_siblings(trial);
  steps_.push_back({{ops.begin(), ops.end()}, {}, {}});
  validated_ = false;
  return true;
}

void SessionCandidate::Touch(const std::string& path) {
  if (!touchedSet_.insert(path).second) return;
  if (touched_.empty()) generation_ = store_->generation();
  if (const lyd_node* running = store_->Find(path)) CopyInto(&base_, running);
  touched_.push_back(path);
}

bool SessionCandidate::SetEntries(lyd_node* tree, const std::string& json,
                                  const std::vector<std::string>& deleted, bool validate,
                                  CommitError* error) {
  const bool replayable = !json.empty() || !tree;
  std::vector<std::string> removed;
  if (!store_->EntryPaths(deleted, &removed, error)) {
    lyd_free_siblings(tree);
    return false;
  }
  if (validate && !store_->ValidateEntries(&tree, error)) {
    lyd_free_siblings(tree);
    return false;
  }
  for (const std::string& path : removed) {
    Touch(path);
    Replace(&work_, path, nullptr);
  }
  // The parsed entries move into the work copy, replacing what it holds.
  for (lyd_node* top = tree; top; top = top->next) {
    lyd_node* container = nullptr;
    if (work_) lyd_find_sibling_val(work_, top->schema, nullptr, 0, &container);
    if (!container && lyd_child(top)) {
      lyd_new_inner(nullptr, top->schema->module, top->schema->name, 0, &container);
      if (work_) {
        lyd_insert_sibling(work_, container, &work_);
      } else {
        work_ = container;
      }
    }
    for (lyd_node *entry = lyd_child(top), *next; entry; entry = next) {
      next = entry->next;
      char* where = lyd_path(entry, LYD_PATH_STD, nullptr, 0);
      const std::string path = where ? where : "";
      free(where);
      Touch(path);
      lyd_node* old = nullptr;
      if (lyd_child(container) &&
          lyd_find_sibling_first(lyd_child(container), entry, &old) == LY_SUCCESS) {
        lyd_free_tree(old);
      }
      lyd_unlink_tree(entry);
      lyd_insert_child(container, entry);
    }
  }
  lyd_free_siblings(tree);
  validated_ = validate && steps_.empty();
  steps_.push_back({{}, json, deleted, replayable});
  return true;
}

const lyd_node* SessionCandidate::Entry(const std::string& path, bool* touched) const {
  *touched = touchedSet_.count(path) > 0;
  return *touched ? FindIn(work_, path) : nullptr;
}

std::vector<std::string> SessionCandidate::Conflicts() const {
  std::vector<std::string> out;
  if (store_->generation() == generation_) return out;  // nothing committed since
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

std::unique_ptr<Candidate> SessionCandidate::Prepare(CommitError* error, bool take) {
  // The work copy holds only touched entries, and the touched entries it lacks are the deleted
  // ones (none when it holds as many as were touched).
  size_t held = 0;
  for (const lyd_node* top = work_; top; top = top->next) {
    for (const lyd_node* entry = lyd_child(top); entry; entry = entry->next) ++held;
  }
  std::vector<std::string> deleted;
  if (held != touched_.size()) {
    for (const std::string& path : touched_) {
      if (!FindIn(work_, path)) deleted.push_back(path);
    }
  }
  // A validated work copy cannot be refused: it goes as it is when taken.
  if (take && validated_)
    return store_->PrepareEntries(std::exchange(work_, nullptr), deleted, error, true);
  lyd_node* tree = nullptr;
  if (work_) lyd_dup_siblings(work_, nullptr, LYD_DUP_RECURSIVE | LYD_DUP_WITH_FLAGS, &tree);
  return store_->PrepareEntries(tree, deleted, error, validated_);
}

bool SessionCandidate::Update(CommitError* error) {
  SessionCandidate rebased(ctx_, store_);
  for (const Step& step : steps_) {
    if (!step.replayable) {
      *error = {
          "entries handed over without their document cannot be set again; discard the "
          "candidate",
          ""};
      return false;
    }
    google::protobuf::RepeatedPtrField<EditOperation> ops(step.ops.begin(), step.ops.end());
    lyd_node* tree = nullptr;
    if (step.ops.empty() ? !(step.json.empty() || store_->ParseEntries(step.json, &tree, error)) ||
                               !rebased.SetEntries(tree, step.json, step.deleted, false, error)
                         : !rebased.Edit(ops, error)) {
      return false;
    }
  }
  std::swap(base_, rebased.base_);
  std::swap(work_, rebased.work_);
  std::swap(steps_, rebased.steps_);
  std::swap(touched_, rebased.touched_);
  std::swap(touchedSet_, rebased.touchedSet_);
  std::swap(generation_, rebased.generation_);
  std::swap(validated_, rebased.validated_);
  return true;
}

}  // namespace pbr::mgmt
