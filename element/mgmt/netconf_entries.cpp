#include "element/mgmt/netconf_entries.h"

#include <map>
#include <utility>

#include "element/mgmt/change_text.h"
#include "element/mgmt/entry_key.h"

namespace pbr::mgmt {
namespace {

bool IsEntry(const lyd_node* node) {
  return node->schema && node->schema->nodetype == LYS_LIST &&
         !(node->schema->flags & LYS_CONFIG_R);
}

using EntryId = std::pair<const lysc_node*, EntryKey>;

}  // namespace

bool EditedEntries(const lyd_node* edit, std::vector<std::string>* keypaths) {
  for (const lyd_node* top = edit; top; top = top->next) {
    if (!top->schema || top->schema->nodetype != LYS_CONTAINER ||
        lyd_find_meta(top->meta, nullptr, "ietf-netconf:operation")) {
      return false;
    }
    for (const lyd_node* entry = lyd_child(top); entry; entry = entry->next) {
      if (!IsEntry(entry)) return false;
      keypaths->push_back(Keypath(entry));
    }
  }
  return true;
}

EntryUpdate ChangedEntries(const lyd_node* current, lyd_node** next, const ly_ctx* into) {
  std::map<EntryId, const lyd_node*> before;
  for (const lyd_node* top = current; top; top = top->next) {
    for (const lyd_node* entry = lyd_child(top); entry; entry = entry->next) {
      if (IsEntry(entry)) before.emplace(EntryId{entry->schema, EntryKey::Of(entry)}, entry);
    }
  }
  std::vector<const lyd_node*> changed;
  size_t entries = 0;
  for (const lyd_node* top = *next; top; top = top->next) {
    for (const lyd_node* entry = lyd_child(top); entry; entry = entry->next) {
      if (!IsEntry(entry)) continue;
      ++entries;
      auto it = before.find(EntryId{entry->schema, EntryKey::Of(entry)});
      const lyd_node* old = nullptr;
      if (it != before.end()) {
        old = it->second;
        before.erase(it);
      }
      if (!old || lyd_compare_single(old, entry, LYD_COMPARE_FULL_RECURSION) != LY_SUCCESS) {
        changed.push_back(entry);
      }
    }
  }
  EntryUpdate out;
  for (const auto& [id, entry] : before) out.deleted.push_back(Keypath(entry));
  if (changed.empty()) return out;
  lyd_node* tree = nullptr;
  if (changed.size() == entries) {  // all of them
    if (LYD_CTX(*next) == into) {
      tree = std::exchange(*next, nullptr);
    } else {
      lyd_dup_siblings_to_ctx(*next, into, nullptr, LYD_DUP_RECURSIVE, &tree);
    }
    out.tree.reset(tree);
    return out;
  }
  for (const lyd_node* entry : changed) {
    lyd_node* copy = nullptr;
    if (lyd_dup_single_to_ctx(entry, into, nullptr, LYD_DUP_RECURSIVE | LYD_DUP_WITH_PARENTS,
                              &copy) != LY_SUCCESS) {
      continue;
    }
    while (lyd_parent(copy)) copy = lyd_parent(copy);
    if (!tree) {
      tree = copy;
    } else {
      lyd_merge_siblings(&tree, copy, LYD_MERGE_DESTRUCT);
    }
  }
  out.tree.reset(tree);
  return out;
}

}  // namespace pbr::mgmt
