// The list entries an edit-config works on, so that its cost follows the entries it names and
// not the configuration's size: which entries an edit names, and the new versions of those it
// changes, handed to the server as one SetEntries.
#pragma once

#include <libyang/libyang.h>

#include <memory>
#include <string>
#include <vector>

namespace pbr::mgmt {

// The keypaths of the list entries the edit tree names (below top-level containers). False when
// the edit reaches beyond them: an operation on a top-level container, or a node of it that is
// not a configuration list entry; the edit then works on the whole configuration.
bool EditedEntries(const lyd_node* edit, std::vector<std::string>* keypaths);

// What turns the entries of `current` into those of `*next` (trees of list entries below
// top-level containers, either null): the entries new or changed, in the context `into` (null
// when none), and the keypaths of the entries `*next` lacks. When every entry is new or changed
// and `into` is the trees' own context, `*next` itself is taken (null after); else the entries
// are copied.
struct EntryUpdate {
  struct TreeFree {
    void operator()(lyd_node* tree) const { lyd_free_siblings(tree); }
  };
  std::unique_ptr<lyd_node, TreeFree> tree;
  std::vector<std::string> deleted;
  bool empty() const { return !tree && deleted.empty(); }
};
EntryUpdate ChangedEntries(const lyd_node* current, lyd_node** next, const ly_ctx* into);

}  // namespace pbr::mgmt
