#include "element/mgmt/change_text.h"

#include <map>
#include <nlohmann/json.hpp>
#include <utility>

#include "element/mgmt/entry_key.h"

namespace pbr::mgmt {
namespace {

std::string KeyText(const char* text) {
  const std::string key = text ? text : "";
  if (!key.empty() && key.find_first_of(" \t{}\"\\") == std::string::npos) return key;
  std::string out = "\"";
  for (const char c : key) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  return out + "\"";
}

// The leaves and leaf-list entries below an entry, its keys left out, in schema order.
std::vector<std::pair<std::string, const lyd_node*>> Terminals(const lyd_node* entry) {
  std::vector<std::pair<std::string, const lyd_node*>> out;
  const lyd_node* node;
  LYD_TREE_DFS_BEGIN(entry, node) {
    if ((node->schema->nodetype & (LYS_LEAF | LYS_LEAFLIST)) && !lysc_is_key(node->schema) &&
        !(node->flags & LYD_DEFAULT)) {
      out.emplace_back(Keypath(node), node);
    }
    LYD_TREE_DFS_END(entry, node);
  }
  return out;
}

ChangeLine SetLine(const std::string& path, const lyd_node* node) {
  ChangeLine line{true, path, {}, false};
  if (node->schema->nodetype == LYS_LEAF) {
    line.value = lyd_get_value(node);
    line.hasValue = true;
  }
  return line;
}

}  // namespace

std::string Keypath(const lyd_node* node) {
  std::vector<const lyd_node*> chain;
  for (; node; node = lyd_parent(node)) chain.push_back(node);
  std::string out;
  for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
    const lyd_node* n = *it;
    out += "/";
    out += n->schema->name;
    if (n->schema->nodetype == LYS_LEAFLIST) {
      out += "{" + KeyText(lyd_get_value(n)) + "}";
    } else if (n->schema->nodetype == LYS_LIST) {
      out += "{";
      bool first = true;
      for (const lyd_node* key = lyd_child(n); key && lysc_is_key(key->schema); key = key->next) {
        if (!first) out += " ";
        out += KeyText(lyd_get_value(key));
        first = false;
      }
      out += "}";
    }
  }
  return out;
}

void EntryChanges(const lyd_node* old, const lyd_node* entry, std::vector<ChangeLine>* out) {
  if (!entry) {
    if (old) out->push_back({false, Keypath(old), {}, false});
    return;
  }
  const auto added = Terminals(entry);
  if (!old) {
    if (added.empty()) out->push_back({true, Keypath(entry), {}, false});
    for (const auto& [path, node] : added) out->push_back(SetLine(path, node));
    return;
  }
  std::map<std::string, const lyd_node*> before;
  for (const auto& [path, node] : Terminals(old)) before.emplace(path, node);
  std::map<std::string, const lyd_node*> after(added.begin(), added.end());
  for (const auto& [path, node] : Terminals(old)) {
    if (!after.count(path)) out->push_back({false, path, {}, false});
  }
  for (const auto& [path, node] : added) {
    auto it = before.find(path);
    if (it == before.end() || (node->schema->nodetype == LYS_LEAF &&
                               std::string(lyd_get_value(it->second)) != lyd_get_value(node))) {
      out->push_back(SetLine(path, node));
    }
  }
}

std::vector<ChangeLine> TreeChanges(const lyd_node* oldTree, const lyd_node* newTree) {
  using Slot = std::pair<const lyd_node*, const lyd_node*>;
  std::map<std::pair<std::string, EntryKey>, Slot> entries;
  const auto collect = [&](const lyd_node* tree, bool isNew) {
    for (const lyd_node* top = tree; top; top = top->next) {
      for (const lyd_node* entry = lyd_child(top); entry; entry = entry->next) {
        if (entry->schema->nodetype != LYS_LIST) continue;
        Slot& slot = entries[{entry->schema->name, EntryKey::Of(entry)}];
        (isNew ? slot.second : slot.first) = entry;
      }
    }
  };
  collect(oldTree, false);
  collect(newTree, true);
  std::vector<ChangeLine> out;
  for (const auto& [key, slot] : entries) {
    if (slot.first && slot.second &&
        lyd_compare_single(slot.first, slot.second, LYD_COMPARE_FULL_RECURSION) == LY_SUCCESS) {
      continue;
    }
    EntryChanges(slot.first, slot.second, &out);
  }
  return out;
}

std::string ChangesJson(const std::vector<ChangeLine>& lines) {
  nlohmann::json changes = nlohmann::json::array();
  for (const ChangeLine& line : lines) {
    nlohmann::json change = {{"op", line.set ? "set" : "delete"}, {"path", line.path}};
    if (line.hasValue) change["value"] = line.value;
    changes.push_back(std::move(change));
  }
  return nlohmann::json{{"changes", std::move(changes)}}.dump(2) + "\n";
}

}  // namespace pbr::mgmt
