// Configuration changes as the operator's own commands: the set and delete lines that turn one
// version of the rules into another, for showing a candidate, a past commit or a rollback.
// Entries are compared leaf by leaf; a whole entry removed is one delete line.
#pragma once

#include <libyang/libyang.h>

#include <string>
#include <vector>

namespace pbr::mgmt {

struct ChangeLine {
  bool set = true;
  std::string path;       // keypath: /router/pbr{7}/rule/priority
  std::string value;      // set of a leaf
  bool hasValue = false;  // false: a leaf-list entry or a bare list entry
};

// The keypath of a data node, keys in braces.
std::string Keypath(const lyd_node* node);

// Appends the lines that turn list entry `old` into `entry` (either may be null): deletes first,
// then sets in schema order.
void EntryChanges(const lyd_node* old, const lyd_node* entry, std::vector<ChangeLine>* out);

// The lines between two trees of list entries below top-level containers (partial or whole),
// entries in key order. Entries of `oldTree` missing from `newTree` are deleted.
std::vector<ChangeLine> TreeChanges(const lyd_node* oldTree, const lyd_node* newTree);

// {"changes": [{"op": "set", "path": ..., "value": ...}, {"op": "delete", "path": ...}]}
std::string ChangesJson(const std::vector<ChangeLine>& lines);

}  // namespace pbr::mgmt
