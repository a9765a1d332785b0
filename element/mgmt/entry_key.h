// The order in which list entries are delivered and read by position: by their keys, numbers
// by value and other types by their text, as ConfD orders system-ordered lists.
#pragma once

#include <libyang/libyang.h>

#include <compare>
#include <cstdint>
#include <string>
#include <variant>
#include <vector>

namespace pbr::mgmt {

class EntryKey {
 public:
  // The keys of a list entry, or the value of a leaf-list entry.
  static EntryKey Of(const lyd_node* entry);

  auto operator<=>(const EntryKey&) const = default;
  bool operator==(const EntryKey&) const = default;

 private:
  std::vector<std::variant<int64_t, uint64_t, std::string>> parts_;
};

// Whether a list entry below a top-level node of `tree` (and its siblings) has the keys of an
// earlier entry of the same list; then libyang's message for it and the entry's data path.
// Documents are checked with it before entries are merged by their keys, which would fold a
// repeated entry into one.
bool RepeatedEntry(const lyd_node* tree, std::string* message, std::string* path);

}  // namespace pbr::mgmt
