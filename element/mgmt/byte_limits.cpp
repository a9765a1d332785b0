#include "element/mgmt/byte_limits.h"

#include <cstdlib>
#include <cstring>

#include "element/mgmt/schema_info.h"

namespace pbr::mgmt {
namespace {

uint32_t Limit(const lyd_node* node) {
  if (!node->schema || !(node->schema->nodetype & (LYS_LEAF | LYS_LEAFLIST))) return 0;
  return SchemaInfo::Of(node->schema).maxBytes;
}

bool Overlong(const lyd_node* node) {
  const uint32_t limit = Limit(node);
  return limit > 0 && std::strlen(lyd_get_value(node)) > limit;
}

std::string PathOf(const lyd_node* node) {
  char* path = lyd_path(node, LYD_PATH_STD, nullptr, 0);
  std::string text = path ? path : "";
  std::free(path);
  return text;
}

// Calls `fn` on every node of the trees at `first` until it returns false; the node it stopped
// at, or null.
template <typename Node, typename Fn>
Node* Walk(Node* first, Fn fn) {
  for (Node* top = first; top; top = top->next) {
    Node* elem;
    LYD_TREE_DFS_BEGIN(top, elem) {
      if (!fn(elem)) return elem;
      LYD_TREE_DFS_END(top, elem);
    }
  }
  return nullptr;
}

}  // namespace

const lyd_node* FindOverlong(const lyd_node* first) {
  return Walk(first, [](const lyd_node* node) { return !Overlong(node); });
}

std::string OverlongReason(const lyd_node* node) {
  return "at most " + std::to_string(Limit(node)) + " bytes, the value has " +
         std::to_string(std::strlen(lyd_get_value(node)));
}

const lyd_node* FitOverlong(lyd_node* first, std::vector<CutValue>* cut) {
  return Walk(first, [&](lyd_node* node) {
    if (!Overlong(node)) return true;
    if (node->schema->nodetype != LYS_LEAF || lysc_is_key(node->schema)) return false;
    const std::string original = lyd_get_value(node);
    size_t keep = Limit(node);
    // Not inside a character: continuation bytes are 10xxxxxx.
    while (keep > 0 && (static_cast<unsigned char>(original[keep]) & 0xC0) == 0x80) --keep;
    const std::string kept = original.substr(0, keep);
    if (lyd_change_term(node, kept.c_str()) != LY_SUCCESS) return false;
    cut->push_back({PathOf(node), original, kept});
    return true;
  });
}

}  // namespace pbr::mgmt
