#include "element/mgmt/entry_key.h"

#include <cstdlib>
#include <set>
#include <utility>

namespace pbr::mgmt {
namespace {

std::variant<int64_t, uint64_t, std::string> Part(const lyd_node* term) {
  const lyd_value& v = reinterpret_cast<const lyd_node_term*>(term)->value;
  switch (v.realtype->basetype) {
    case LY_TYPE_UINT8:
      return uint64_t{v.uint8};
    case LY_TYPE_UINT16:
      return uint64_t{v.uint16};
    case LY_TYPE_UINT32:
      return uint64_t{v.uint32};
    case LY_TYPE_UINT64:
      return uint64_t{v.uint64};
    case LY_TYPE_INT8:
      return int64_t{v.int8};
    case LY_TYPE_INT16:
      return int64_t{v.int16};
    case LY_TYPE_INT32:
      return int64_t{v.int32};
    case LY_TYPE_INT64:
      return int64_t{v.int64};
    default:
      return std::string(lyd_get_value(term));
  }
}

}  // namespace

EntryKey EntryKey::Of(const lyd_node* entry) {
  EntryKey key;
  if (entry->schema->nodetype == LYS_LEAFLIST) {
    key.parts_.push_back(Part(entry));
    return key;
  }
  for (const lyd_node* k = lyd_child(entry); k && lysc_is_key(k->schema); k = k->next) {
    key.parts_.push_back(Part(k));
  }
  return key;
}

bool RepeatedEntry(const lyd_node* tree, std::string* message, std::string* path) {
  for (const lyd_node* top = tree; top; top = top->next) {
    std::set<std::pair<const lysc_node*, EntryKey>> seen;
    for (const lyd_node* child = lyd_child(top); child; child = child->next) {
      if (child->schema && child->schema->nodetype == LYS_LIST &&
          !seen.emplace(child->schema, EntryKey::Of(child)).second) {
        *message = std::string("Duplicate instance of \"") + child->schema->name + "\".";
        char* where = lyd_path(child, LYD_PATH_STD, nullptr, 0);
        *path = where ? where : "";
        std::free(where);
        return true;
      }
    }
  }
  return false;
}

}  // namespace pbr::mgmt
