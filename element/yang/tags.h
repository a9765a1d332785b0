// XML tags of the module's nodes, from common/pbr_tags.def and, for the nodes only the element
// fills, element/yang/element_tags.def: the numbers ConfD's keypaths and
// tagged values carry. A tag belongs to a node name; nodes of the same name share it.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace pbr::yang {

struct TagEntry {
  std::string_view name;
  uint32_t tag;
};

// Every entry of the table, in its order.
std::span<const TagEntry> TagTable();

// The tag of a node name, if the table has it.
std::optional<uint32_t> TagOfName(std::string_view name);

// The node name of a tag; empty when the table lacks the tag.
std::string_view NameOfTag(uint32_t tag);

}  // namespace pbr::yang
