// Changes between two versions of the configuration in ConfD's diff-iteration order: list
// entries in ascending key order, each entry's own change (created, modified, deleted) before
// its changed children, children in schema order, a removed choice case before the new case,
// leaf-list entries one by one with the value as key. Only leaves, leaf-list entries, list
// entries and presence containers are reported; non-presence containers only lead the way.
#pragma once

#include <libyang/libyang.h>

#include <vector>

#include "element/mgmt/change_list.h"
#include "platform/confd_lib.h"

namespace pbr::mgmt {

class DiffWriter {
 public:
  explicit DiffWriter(ChangeList* out) : out_(out) {}

  // The changes between the children of two data nodes of schema `parent` (null: the
  // top-level nodes of `module`); either side may be null (nothing there).
  void Children(const lysc_node* parent, const lysc_module* module, const lyd_node* oldFirst,
                const lyd_node* newFirst);

  // The changes of one list entry (either version may be null); the current keypath must end
  // at the entry's parent.
  void Entry(const lyd_node* oldEntry, const lyd_node* newEntry);

  // Keypath of the parent of the nodes to compare, root-most first: a schema node's tag.
  void Push(const lysc_node* schema) { path_.push_back({schema, nullptr}); }
  void Pop() { path_.pop_back(); }

 private:
  // The changes of the children of a node that is new: no old side to compare with.
  void Created(const lyd_node* first);
  void Node(const lysc_node* schema, const lyd_node* oldFirst, const lyd_node* newFirst);
  void Choice(const lysc_node* choice, const lyd_node* oldFirst, const lyd_node* newFirst);
  void List(const lysc_node* schema, const lyd_node* oldFirst, const lyd_node* newFirst);
  void LeafList(const lysc_node* schema, const lyd_node* oldFirst, const lyd_node* newFirst);
  size_t Emit(confd_iter_op op, const lyd_node* oldValue, const lyd_node* newValue);
  void OpenSubtree(size_t index);
  void CloseSubtree(size_t index);

  ChangeList* out_;
  std::vector<ChangeList::Step> path_;
  // The reported changes whose subtrees are open: their index and the keypath length at them.
  std::vector<std::pair<size_t, size_t>> open_;
};

}  // namespace pbr::mgmt
