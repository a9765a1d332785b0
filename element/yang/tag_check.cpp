// Build-time check: every data node of the PBR module has a tag in common/pbr_tags.def (or
// element/yang/element_tags.def for element-owned nodes), and every entry of those tables names a
// node of the module. Exits 1 with the differences otherwise.
#include <cstdio>
#include <set>
#include <string>

#include "element/yang/module.h"
#include "element/yang/tags.h"

namespace {

// Names of the data nodes below and beside `node`; choices and cases are schema structure only
// and never appear in data or keypaths.
void CollectNames(const lysc_node* node, std::set<std::string>* names) {
  for (; node; node = node->next) {
    if (!(node->nodetype & (LYS_CHOICE | LYS_CASE))) names->insert(node->name);
    CollectNames(lysc_node_child(node), names);
  }
}

}  // namespace

int main() {
  std::string error;
  pbr::yang::Context ctx = pbr::yang::LoadContext(&error);
  if (!ctx) {
    std::fprintf(stderr, "%s\n", error.c_str());
    return 1;
  }
  std::set<std::string> names;
  CollectNames(pbr::yang::Module(ctx.get())->compiled->data, &names);

  int faults = 0;
  for (const std::string& name : names) {
    if (!pbr::yang::TagOfName(name)) {
      std::fprintf(stderr,
                   "pbr.yang: node \"%s\" has no tag in common/pbr_tags.def or element_tags.def\n",
                   name.c_str());
      ++faults;
    }
  }
  std::set<uint32_t> tags;
  for (const pbr::yang::TagEntry& e : pbr::yang::TagTable()) {
    if (!names.count(std::string(e.name))) {
      std::fprintf(stderr, "tag table: \"%.*s\" names no node of pbr.yang\n",
                   static_cast<int>(e.name.size()), e.name.data());
      ++faults;
    }
    if (!tags.insert(e.tag).second) {
      std::fprintf(stderr, "tag table: tag 0x%08x of \"%.*s\" is used twice\n", e.tag,
                   static_cast<int>(e.name.size()), e.name.data());
      ++faults;
    }
  }
  return faults ? 1 : 0;
}
