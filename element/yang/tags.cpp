#include "element/yang/tags.h"

#include <array>

namespace pbr::yang {
namespace {

constexpr std::array kTable = {
#define PBR_TAG(constant, node, value) TagEntry{node, value},
#include "common/pbr_tags.def"
#include "element/yang/element_tags.def"
#undef PBR_TAG
};

}  // namespace

std::span<const TagEntry> TagTable() {
  return kTable;
}

std::optional<uint32_t> TagOfName(std::string_view name) {
  for (const TagEntry& e : kTable) {
    if (e.name == name) return e.tag;
  }
  return std::nullopt;
}

std::string_view NameOfTag(uint32_t tag) {
  for (const TagEntry& e : kTable) {
    if (e.tag == tag) return e.name;
  }
  return {};
}

}  // namespace pbr::yang
