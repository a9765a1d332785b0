#include "element/mgmt/datastore.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <set>
#include <utility>

#include "element/mgmt/byte_limits.h"
#include "element/mgmt/data_path.h"
#include "element/mgmt/json_text.h"
#include "element/mgmt/schema_info.h"
#include "element/mgmt/snapshot.h"
#include "element/yang/module.h"

namespace pbr::mgmt {

namespace {

lyd_node* TopOf(lyd_node* node) {
  while (node && lyd_parent(node)) node = lyd_parent(node);
  return node ? lyd_first_sibling(node) : nullptr;
}

// The top-level node of `schema` among `first`'s siblings, created when `create` is set.
lyd_node* FindTop(lyd_node** first, const lys_module* module, const lysc_node* schema,
                  bool create) {
  lyd_node* match = nullptr;
  if (*first && lyd_find_sibling_val(*first, schema, nullptr, 0, &match) == LY_SUCCESS) {
    return match;
  }
  if (!create || lyd_new_inner(nullptr, module, schema->name, 0, &match) != LY_SUCCESS) {
    return nullptr;
  }
  if (*first) {
    lyd_insert_sibling(*first, match, first);
  } else {
    *first = match;
  }
  return match;
}

}  // namespace

Datastore::Datastore(ly_ctx* ctx) : ctx_(ctx), module_(pbr::yang::Module(ctx)) {}

Datastore::~Datastore() {
  lyd_free_siblings(running_);
}

bool Datastore::IsUnitList(const lysc_node* list) {
  const lysc_node* parent = list->parent;
  return list->nodetype == LYS_LIST && !(list->flags & LYS_CONFIG_R) && parent &&
         parent->nodetype == LYS_CONTAINER && !parent->parent && !(parent->flags & LYS_PRESENCE);
}

CommitError Datastore::LastError(std::string_view fallback) const {
  const ly_err_item* e = ly_err_last(ctx_);
  CommitError error;
  error.message = e && e->msg ? e->msg : std::string(fallback);
  if (e && e->path) error.path = e->path;
  return error;
}

CommitError Datastore::ValidationError(lyd_node* tree) const {
  CommitError error = LastError("invalid configuration");
  if (error.path.find('[') != std::string::npos) return error;
  // libyang writes it as: Schema location "/pbr:router/pbr/rule/priority".
  std::string_view schemaPath = error.path;
  if (const size_t open = schemaPath.find('"'), close = schemaPath.rfind('"');
      open != std::string_view::npos && close > open) {
    schemaPath = schemaPath.substr(open + 1, close - open - 1);
  }
  // libyang names a missing node (a mandatory leaf) by its schema path. Find the list entry that
  // fails on its own and name the node below it; this runs only for refused commits.
  for (lyd_node* top = tree; top; top = top->next) {
    for (lyd_node* entry = lyd_child(top); entry; entry = entry->next) {
      if (!IsUnitList(entry->schema)) continue;
      char* listPath = lysc_path(entry->schema, LYSC_PATH_DATA, nullptr, 0);
      const bool below = listPath && schemaPath.starts_with(listPath) &&
                         schemaPath.size() > strlen(listPath) &&
                         schemaPath[strlen(listPath)] == '/';
      const size_t listPathLength = listPath ? strlen(listPath) : 0;
      free(listPath);
      if (!below) continue;  // the error is not about entries of this list
      lyd_node* copy = nullptr;
      // Without LYD_DUP_WITH_FLAGS: the copy is new to libyang, so it is validated in full.
      if (lyd_dup_single(entry, nullptr, LYD_DUP_RECURSIVE | LYD_DUP_WITH_PARENTS, &copy) !=
          LY_SUCCESS) {
        continue;
      }
      lyd_node* copyTop = TopOf(copy);
      const LY_ERR r = lyd_validate_all(&copyTop, ctx_, LYD_VALIDATE_PRESENT, nullptr);
      lyd_free_all(copyTop);
      if (r == LY_SUCCESS) continue;
      char* entryPath = lyd_path(entry, LYD_PATH_STD, nullptr, 0);
      if (entryPath) error.path = entryPath + std::string(schemaPath.substr(listPathLength));
      free(entryPath);
      return error;
    }
  }
  return error;
}

CommitError Datastore::ParseError() const {
  CommitError error = LastError("cannot parse the document");
  // A key value the parser refuses leaves no entry to name: libyang names the key's schema
  // node, `Data location "/pbr:router/pbr/id", line number 3.`, and the value in its message.
  constexpr std::string_view kLead = "Data location \"";
  if (!error.path.starts_with(kLead)) return error;
  const size_t close = error.path.find('"', kLead.size());
  const size_t quoted = error.message.find("alue \"");
  if (close == std::string::npos || quoted == std::string::npos) return error;
  const std::string path = error.path.substr(kLead.size(), close - kLead.size());
  const size_t valueStart = quoted + 6;
  const size_t valueEnd = error.message.find('"', valueStart);
  const size_t slash = path.rfind('/');
  const lysc_node* key = lys_find_path(ctx_, nullptr, path.c_str(), 0);
  const bool onlyKey = key && lysc_is_key(key) && key->parent &&
                       lysc_node_child(key->parent) == key &&
                       !(key->next && lysc_is_key(key->next));
  if (valueEnd == std::string::npos || slash == std::string::npos || !onlyKey) return error;
  const std::string value = error.message.substr(valueStart, valueEnd - valueStart);
  if (value.find('\'') != std::string::npos) return error;
  const std::string name = path.substr(slash + 1);
  error.path = std::string(kLead) + path.substr(0, slash) + "[" + name + "='" + value + "']/" +
               name + error.path.substr(close);
  return error;
}

CommitError Datastore::ReplaceError(const std::string& data, LYD_FORMAT format) const {
  CommitError error = ParseError();
  // A document that parses but does not validate is validated again on its own, so that the
  // refusal names the list entry at fault as a merge's does; this runs only for refusals.
  lyd_node* doc = nullptr;
  if (lyd_parse_data_mem(ctx_, data.c_str(), format,
                         LYD_PARSE_ONLY | LYD_PARSE_STRICT | LYD_PARSE_NO_STATE, 0,
                         &doc) == LY_SUCCESS &&
      lyd_validate_all(&doc, ctx_, LYD_VALIDATE_PRESENT | LYD_VALIDATE_NO_STATE, nullptr) !=
          LY_SUCCESS) {
    error = ValidationError(doc);
  }
  lyd_free_siblings(doc);
  return error;
}

void Datastore::Reindex() {
  index_.clear();
  for (lyd_node* top = running_; top; top = top->next) {
    for (lyd_node* child = lyd_child(top); child; child = child->next) {
      if (IsUnitList(child->schema)) index_[child->schema][EntryKey::Of(child)] = child;
    }
  }
}

bool Datastore::LoadRunning(std::string_view json, CommitError* error) {
  ly_err_clean(ctx_, nullptr);
  lyd_node* tree = nullptr;
  const std::string text(json);
  if (lyd_parse_data_mem(ctx_, text.c_str(), LYD_JSON, LYD_PARSE_STRICT | LYD_PARSE_NO_STATE,
                         LYD_VALIDATE_NO_STATE, &tree) != LY_SUCCESS) {
    *error = LastError("cannot parse the stored configuration");
    lyd_free_siblings(tree);
    return false;
  }
  lyd_free_siblings(running_);
  running_ = tree;
  Reindex();
  return true;
}

bool ApplyEditOperation(ly_ctx* ctx, lyd_node** tree, const EditOperation& op, const DataPath& path,
                        CommitError* error) {
  if (op.kind() == EditOperation::DELETE) {
    lyd_node* match = nullptr;
    if (!*tree || lyd_find_path(*tree, path.path.c_str(), 0, &match) != LY_SUCCESS) {
      *error = {"no such node to delete", op.path()};
      return false;
    }
    if (match == *tree) *tree = match->next;
    lyd_free_tree(match);
    if (*tree) *tree = lyd_first_sibling(*tree);
    return true;
  }
  const bool term = path.target->nodetype & (LYS_LEAF | LYS_LEAFLIST);
  lyd_node* created = nullptr;
  const LY_ERR r = lyd_new_path(*tree, ctx, path.path.c_str(), term ? op.value().c_str() : nullptr,
                                LYD_NEW_PATH_UPDATE, &created);
  if (r != LY_SUCCESS && r != LY_EEXIST) {
    // When the error is about the node being set, the operator's path names it with its keys;
    // libyang's names only the schema node. Otherwise (a bad key, say) libyang's path is the one.
    const ly_err_item* e = ly_err_last(ctx);
    std::string where = e && e->path ? e->path : op.path();
    char* target = lysc_path(path.target, LYSC_PATH_LOG, nullptr, 0);  // as libyang logs it
    if (target && where.find('"' + std::string(target) + '"') != std::string::npos) {
      where = op.path();
    }
    free(target);
    *error = {e && e->msg ? e->msg : "cannot set the node", where};
    return false;
  }
  if (!*tree) *tree = TopOf(created);
  if (*tree) *tree = lyd_first_sibling(*tree);
  return true;
}

std::unique_ptr<Candidate> Datastore::Prepare(const Edit& edit, CommitError* error) {
  ly_err_clean(ctx_, nullptr);
  std::vector<DataPath> paths(edit.operation_size());
  bool whole = false;
  for (int i = 0; i < edit.operation_size(); ++i) {
    std::string why;
    if (!ParseDataPath(module_, edit.operation(i).path(), &paths[i], &why)) {
      *error = {why, edit.operation(i).path()};
      return nullptr;
    }
    if (paths[i].entryPath.empty() || !IsUnitList(paths[i].entryList)) whole = true;
  }

  if (whole) {
    lyd_node* tree = nullptr;
    if (running_ && lyd_dup_siblings(running_, nullptr, LYD_DUP_RECURSIVE | LYD_DUP_WITH_FLAGS,
                                     &tree) != LY_SUCCESS) {
      *error = LastError("cannot copy the configuration");
      return nullptr;
    }
    for (int i = 0; i < edit.operation_size(); ++i) {
      if (!ApplyEditOperation(ctx_, &tree, edit.operation(i), paths[i], error)) {
        lyd_free_siblings(tree);
        return nullptr;
      }
    }
    return PrepareWhole(tree, error);
  }

  // Work on copies of the touched entries only.
  auto candidate = std::make_unique<Candidate>();
  std::set<std::string> copied;  // entry paths already copied, deleted or created
  std::map<const lysc_node*, std::map<EntryKey, lyd_node*>> deleted;
  for (int i = 0; i < edit.operation_size(); ++i) {
    const DataPath& path = paths[i];
    if (copied.insert(path.entryPath).second) {
      lyd_node* entry = nullptr;
      if (running_ && lyd_find_path(running_, path.entryPath.c_str(), 0, &entry) == LY_SUCCESS) {
        lyd_node* top = FindTop(&candidate->tree, module_, path.entryList->parent, true);
        lyd_dup_single(entry, reinterpret_cast<lyd_node_inner*>(top),
                       LYD_DUP_RECURSIVE | LYD_DUP_WITH_FLAGS, nullptr);
      }
    }
    if (path.isEntry && edit.operation(i).kind() == EditOperation::DELETE) {
      lyd_node* entry = nullptr;
      if (candidate->tree &&
          lyd_find_path(candidate->tree, path.entryPath.c_str(), 0, &entry) == LY_SUCCESS) {
        deleted[path.entryList][EntryKey::Of(entry)] = nullptr;
      }
    }
    if (!ApplyEditOperation(ctx_, &candidate->tree, edit.operation(i), path, error)) return nullptr;
  }
  candidate->entries = std::move(deleted);
  if (!FinishPartial(candidate.get(), error)) return nullptr;
  return candidate;
}

bool Datastore::FinishPartial(Candidate* candidate, CommitError* error, bool validated) const {
  if (!validated && candidate->tree &&
      lyd_validate_all(&candidate->tree, ctx_, LYD_VALIDATE_PRESENT, nullptr) != LY_SUCCESS) {
    *error = ValidationError(candidate->tree);
    return false;
  }
  if (!validated && !FitsBytes(candidate->tree, error)) return false;
  for (lyd_node* top = candidate->tree; top; top = top->next) {
    for (lyd_node* child = lyd_child(top); child; child = child->next) {
      if (IsUnitList(child->schema)) candidate->entries[child->schema][EntryKey::Of(child)] = child;
    }
  }
  DropUnchanged(candidate);
  return true;
}

std::unique_ptr<Candidate> Datastore::PrepareEntries(lyd_node* tree,
                                                     const std::vector<std::string>& deleted,
                                                     CommitError* error, bool validated) {
  ly_err_clean(ctx_, nullptr);
  auto candidate = std::make_unique<Candidate>();
  candidate->tree = tree;
  for (const std::string& path : deleted) {
    if (lyd_node* old = Find(path)) {
      candidate->entries[old->schema][EntryKey::Of(old)] = nullptr;
    }
  }
  if (!FinishPartial(candidate.get(), error, validated)) return nullptr;
  return candidate;
}

bool Datastore::ParseEntries(const std::string& json, lyd_node** tree, CommitError* error) const {
  ly_err_clean(ctx_, nullptr);
  *tree = nullptr;
  if (lyd_parse_data_mem(ctx_, json.c_str(), LYD_JSON,
                         LYD_PARSE_ONLY | LYD_PARSE_STRICT | LYD_PARSE_NO_STATE, 0,
                         tree) != LY_SUCCESS) {
    *error = ParseError();
    lyd_free_siblings(*tree);
    *tree = nullptr;
    return false;
  }
  if (!CheckEntries(*tree, error)) {
    lyd_free_siblings(*tree);
    *tree = nullptr;
    return false;
  }
  return true;
}

bool Datastore::CheckEntries(const lyd_node* tree, CommitError* error) const {
  for (const lyd_node* top = tree; top; top = top->next) {
    if (!top->schema || top->schema->module != module_ || top->schema->nodetype != LYS_CONTAINER ||
        (top->schema->flags & LYS_CONFIG_R)) {
      *error = {"only list entries of the configuration can be set here", ""};
      return false;
    }
    for (const lyd_node* child = lyd_child(top); child; child = child->next) {
      if (IsUnitList(child->schema)) continue;
      char* path = lyd_path(child, LYD_PATH_STD, nullptr, 0);
      *error = {"only list entries can be set here", path ? path : ""};
      free(path);
      return false;
    }
  }
  return true;
}

bool Datastore::ValidateEntries(lyd_node** tree, CommitError* error) const {
  ly_err_clean(ctx_, nullptr);
  if (*tree && lyd_validate_all(tree, ctx_, LYD_VALIDATE_PRESENT, nullptr) != LY_SUCCESS) {
    *error = ValidationError(*tree);
    return false;
  }
  return FitsBytes(*tree, error);
}

lyd_node* Datastore::Find(const std::string& path) const {
  lyd_node* match = nullptr;
  if (!running_ || lyd_find_path(running_, path.c_str(), 0, &match) != LY_SUCCESS) return nullptr;
  return match;
}

void Datastore::ForEachChange(
    const Candidate& candidate,
    const std::function<void(const lyd_node*, const lyd_node*)>& visit) const {
  if (!candidate.whole) {
    for (const auto& [list, entries] : candidate.entries) {
      auto running = index_.find(list);
      for (const auto& [key, entry] : entries) {
        const lyd_node* old = nullptr;
        if (running != index_.end()) {
          auto it = running->second.find(key);
          if (it != running->second.end()) old = it->second;
        }
        if (old || entry) visit(old, entry);
      }
    }
    return;
  }
  // A whole candidate: its entries against the running ones, then the running ones it lacks.
  std::map<const lysc_node*, std::set<const lyd_node*>> kept;
  for (const lyd_node* top = candidate.tree; top; top = top->next) {
    for (const lyd_node* entry = lyd_child(top); entry; entry = entry->next) {
      if (!IsUnitList(entry->schema)) continue;
      const lyd_node* old = nullptr;
      auto running = index_.find(entry->schema);
      if (running != index_.end()) {
        auto it = running->second.find(EntryKey::Of(entry));
        if (it != running->second.end()) old = it->second;
      }
      if (old) kept[entry->schema].insert(old);
      if (old && lyd_compare_single(old, entry, LYD_COMPARE_FULL_RECURSION) == LY_SUCCESS) continue;
      visit(old, entry);
    }
  }
  for (const auto& [list, entries] : index_) {
    const auto& still = kept[list];
    for (const auto& [key, old] : entries) {
      if (!still.count(old)) visit(old, nullptr);
    }
  }
}

ChangeCounts Datastore::Count(const Candidate& candidate) const {
  ChangeCounts counts;
  ForEachChange(candidate, [&](const lyd_node* old, const lyd_node* entry) {
    if (!old) {
      ++counts.added;
    } else if (!entry) {
      ++counts.deleted;
    } else {
      ++counts.changed;
    }
  });
  return counts;
}

std::unique_ptr<Candidate> Datastore::Prepare(Load load, CommitError* error) {
  ly_err_clean(ctx_, nullptr);
  const LYD_FORMAT format = load.format() == Load::XML ? LYD_XML : LYD_JSON;
  lyd_node* doc = nullptr;
  if (load.mode() == Load::REPLACE) {
    if (lyd_parse_data_mem(ctx_, load.data().c_str(), format, LYD_PARSE_STRICT | LYD_PARSE_NO_STATE,
                           LYD_VALIDATE_NO_STATE, &doc) != LY_SUCCESS) {
      lyd_free_siblings(doc);
      *error = ReplaceError(load.data(), format);
      return nullptr;
    }
    // Parsing validated the document; the whole tree is not walked a second time.
    auto candidate = PrepareWhole(doc, error, true);
    if (candidate && format == LYD_JSON) candidate->json = std::move(*load.mutable_data());
    return candidate;
  }

  // Merge: the document need not be complete on its own, so it is validated after merging.
  if (lyd_parse_data_mem(ctx_, load.data().c_str(), format,
                         LYD_PARSE_ONLY | LYD_PARSE_STRICT | LYD_PARSE_NO_STATE, 0,
                         &doc) != LY_SUCCESS) {
    *error = ParseError();
    lyd_free_siblings(doc);
    return nullptr;
  }
  // A repeated entry is refused whether or not it is new.
  if (RepeatedEntry(doc, &error->message, &error->path)) {
    lyd_free_siblings(doc);
    return nullptr;
  }
  bool units = true;
  for (lyd_node* top = doc; top && units; top = top->next) {
    if (top->schema->nodetype != LYS_CONTAINER || (top->schema->flags & LYS_PRESENCE)) {
      units = false;
    }
    for (lyd_node* child = lyd_child(top); child && units; child = child->next) {
      units = IsUnitList(child->schema);
    }
  }
  lyd_node* tree = nullptr;
  if (!units) {
    if (running_ && lyd_dup_siblings(running_, nullptr, LYD_DUP_RECURSIVE | LYD_DUP_WITH_FLAGS,
                                     &tree) != LY_SUCCESS) {
      *error = LastError("cannot copy the configuration");
      lyd_free_siblings(doc);
      return nullptr;
    }
  } else {
    // Copies of the running entries that the document merges into. An entry the document
    // repeats exactly changes nothing and is left out before it costs a copy.
    for (lyd_node* top = doc; top; top = top->next) {
      for (lyd_node *child = lyd_child(top), *next; child; child = next) {
        next = child->next;
        const Index& index = index_[child->schema];
        auto it = index.find(EntryKey::Of(child));
        if (it == index.end()) continue;
        if (lyd_compare_single(it->second, child, LYD_COMPARE_FULL_RECURSION) == LY_SUCCESS) {
          lyd_free_tree(child);
          continue;
        }
        lyd_node* parent = FindTop(&tree, module_, top->schema, true);
        lyd_dup_single(it->second, reinterpret_cast<lyd_node_inner*>(parent),
                       LYD_DUP_RECURSIVE | LYD_DUP_WITH_FLAGS, nullptr);
      }
    }
  }
  if (!doc) {
    // An empty document changes nothing.
  } else if (tree) {
    const LY_ERR r = lyd_merge_siblings(&tree, doc, LYD_MERGE_DESTRUCT | LYD_MERGE_WITH_FLAGS);
    doc = nullptr;
    if (r != LY_SUCCESS) {
      *error = LastError("cannot merge the document");
      lyd_free_siblings(tree);
      return nullptr;
    }
  } else {
    tree = doc;
  }
  if (!units) return PrepareWhole(tree, error);

  auto candidate = std::make_unique<Candidate>();
  candidate->tree = tree;
  if (tree &&
      lyd_validate_all(&candidate->tree, ctx_, LYD_VALIDATE_PRESENT, nullptr) != LY_SUCCESS) {
    *error = ValidationError(candidate->tree);
    return nullptr;
  }
  if (!FitsBytes(candidate->tree, error)) return nullptr;
  for (lyd_node* top = candidate->tree; top; top = top->next) {
    for (lyd_node* child = lyd_child(top); child; child = child->next) {
      candidate->entries[child->schema][EntryKey::Of(child)] = child;
    }
  }
  DropUnchanged(candidate.get());
  return candidate;
}

void Datastore::DropUnchanged(Candidate* candidate) const {
  for (auto& [list, entries] : candidate->entries) {
    auto running = index_.find(list);
    if (running == index_.end()) continue;
    for (auto it = entries.begin(); it != entries.end();) {
      auto old = running->second.find(it->first);
      if (it->second && old != running->second.end() &&
          lyd_compare_single(old->second, it->second, LYD_COMPARE_FULL_RECURSION) == LY_SUCCESS) {
        lyd_free_tree(it->second);
        it = entries.erase(it);
      } else {
        ++it;
      }
    }
  }
}

std::unique_ptr<Candidate> Datastore::PrepareWhole(lyd_node* tree, CommitError* error,
                                                   bool validated) {
  auto candidate = std::make_unique<Candidate>();
  candidate->whole = true;
  candidate->tree = tree;
  if (!validated &&
      lyd_validate_all(&candidate->tree, ctx_, LYD_VALIDATE_PRESENT | LYD_VALIDATE_NO_STATE,
                       nullptr) != LY_SUCCESS) {
    *error = ValidationError(candidate->tree);
    return nullptr;
  }
  if (!FitsBytes(candidate->tree, error)) return nullptr;
  return candidate;
}

bool Datastore::FitsBytes(const lyd_node* tree, CommitError* error) const {
  const lyd_node* overlong = FindOverlong(tree);
  if (!overlong) return true;
  char* path = lyd_path(overlong, LYD_PATH_STD, nullptr, 0);
  *error = {OverlongReason(overlong), path ? path : ""};
  free(path);
  return false;
}

bool Datastore::FitStored(std::vector<CutValue>* cut, CommitError* error) {
  const lyd_node* unfit = FitOverlong(running_, cut);
  if (!unfit) return true;
  FitsBytes(unfit, error);
  return false;
}

void Datastore::Diff(const Candidate& candidate, ChangeList* out) const {
  DiffWriter writer(out);
  if (candidate.whole) {
    writer.Children(nullptr, module_->compiled, running_, candidate.tree);
    return;
  }
  // Lists in schema order, each list's entries in key order.
  const lysc_node* top = nullptr;
  while ((top = lys_getnext(top, nullptr, module_->compiled, 0))) {
    const lysc_node* list = nullptr;
    while ((list = lys_getnext(list, top, nullptr, 0))) {
      auto touched = candidate.entries.find(list);
      if (touched == candidate.entries.end()) continue;
      writer.Push(top);
      auto running = index_.find(list);
      for (const auto& [key, entry] : touched->second) {
        const lyd_node* old = nullptr;
        if (running != index_.end()) {
          auto it = running->second.find(key);
          if (it != running->second.end()) old = it->second;
        }
        writer.Entry(old, entry);
      }
      writer.Pop();
    }
  }
}

uint64_t Datastore::ChangedAt(const lyd_node* entry) const {
  const EntryKey key = EntryKey::Of(entry);
  if (auto list = index_.find(entry->schema); list != index_.end()) {
    if (auto it = list->second.find(key); it != list->second.end()) {
      return std::max(wholeAt_,
                      static_cast<uint64_t>(reinterpret_cast<uintptr_t>(it->second->priv)));
    }
  }
  if (auto list = deletedAt_.find(entry->schema); list != deletedAt_.end()) {
    if (auto it = list->second.find(key); it != list->second.end()) {
      return std::max(wholeAt_, it->second);
    }
  }
  return wholeAt_;
}

void Datastore::Apply(std::unique_ptr<Candidate> candidate) {
  ++generation_;
  if (candidate->whole) {
    wholeAt_ = generation_;
    deletedAt_.clear();
    lyd_free_siblings(running_);
    running_ = candidate->tree;
    candidate->tree = nullptr;
    Reindex();
    return;
  }
  for (auto& [list, entries] : candidate->entries) {
    Index& index = index_[list];
    for (auto& [key, entry] : entries) {
      auto it = index.find(key);
      if (it != index.end()) {
        lyd_free_tree(it->second);
        index.erase(it);
      }
      if (!entry) {
        deletedAt_[list][key] = generation_;
        continue;
      }
      entry->priv = reinterpret_cast<void*>(static_cast<uintptr_t>(generation_));
      lyd_unlink_tree(entry);
      lyd_node* parent = FindTop(&running_, module_, list->parent, true);
      lyd_insert_child(parent, entry);
      index.emplace(key, entry);
    }
  }
  if (running_) running_ = lyd_first_sibling(running_);
}

JournalRecord Datastore::Record(Candidate* candidate) const {
  JournalRecord record;
  record.set_whole(candidate->whole);
  if (candidate->whole && !candidate->json.empty()) {
    record.set_json(std::move(candidate->json));
    candidate->json.clear();
    return record;
  }
  record.set_json(PrintJson(candidate->tree, true));
  if (candidate->whole) return record;
  for (const auto& [list, entries] : candidate->entries) {
    auto running = index_.find(list);
    if (running == index_.end()) continue;
    for (const auto& [key, entry] : entries) {
      auto old = running->second.find(key);
      if (entry || old == running->second.end()) continue;
      char* path = lyd_path(old->second, LYD_PATH_STD, nullptr, 0);
      if (path) record.add_deleted(path);
      free(path);
    }
  }
  return record;
}

bool Datastore::Replay(const JournalRecord& record, CommitError* error) {
  if (record.whole()) return LoadRunning(record.json(), error);
  ly_err_clean(ctx_, nullptr);
  auto candidate = std::make_unique<Candidate>();
  // The entries were valid when committed; parsing validates them again, which also marks them
  // as validated for later commits.
  if (lyd_parse_data_mem(
          ctx_, record.json().c_str(), LYD_JSON, LYD_PARSE_STRICT | LYD_PARSE_NO_STATE,
          LYD_VALIDATE_PRESENT | LYD_VALIDATE_NO_STATE, &candidate->tree) != LY_SUCCESS) {
    *error = LastError("cannot parse a journal record");
    return false;
  }
  for (const std::string& path : record.deleted()) {
    lyd_node* old = nullptr;
    if (running_ && lyd_find_path(running_, path.c_str(), 0, &old) == LY_SUCCESS) {
      candidate->entries[old->schema][EntryKey::Of(old)] = nullptr;
    }
  }
  for (lyd_node* top = candidate->tree; top; top = top->next) {
    for (lyd_node* child = lyd_child(top); child; child = child->next) {
      candidate->entries[child->schema][EntryKey::Of(child)] = child;
    }
  }
  Apply(std::move(candidate));
  return true;
}

std::vector<const lyd_node*> Datastore::Entries(const lysc_node* list) const {
  std::vector<const lyd_node*> out;
  auto it = index_.find(list);
  if (it == index_.end()) return out;
  out.reserve(it->second.size());
  for (const auto& [key, entry] : it->second) out.push_back(entry);
  return out;
}

std::string Datastore::AttachMessage(uint64_t seq, size_t headroom) const {
  return SnapshotWriter(running_, index_).AttachMessage(seq, headroom);
}

lyd_node* Datastore::CopyRunning() const {
  lyd_node* copy = nullptr;
  if (running_) lyd_dup_siblings(running_, nullptr, LYD_DUP_RECURSIVE | LYD_DUP_WITH_FLAGS, &copy);
  return copy;
}

std::string Datastore::RunningXml() const {
  return PrintXml(running_);
}

std::string Datastore::RunningJson(bool compact) const {
  return PrintJson(running_, compact);
}

}  // namespace pbr::mgmt
