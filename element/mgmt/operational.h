// The operational view as text: get-object replies (ConfD tagged value arrays) checked against
// the operational list's schema and printed as RFC 7951 JSON or as XML.
//
// The view holds each entry's values, not a data tree: a view of every rule is printed once
// and dropped, and building, printing and freeing a libyang tree of it cost the loop several
// times what the text does.
#pragma once

#include <libyang/libyang.h>

#include <cstddef>
#include <string>
#include <unordered_map>
#include <vector>

#include "element/mgmt/mgmt.pb.h"

namespace pbr::mgmt {

class OperationalView {
 public:
  static constexpr size_t kNone = static_cast<size_t>(-1);

  // `list` is the operational list (config false, one key) the replies fill; its ancestors are
  // containers.
  OperationalView(ly_ctx* ctx, const lysc_node* list);

  // Adds the entry with `key` from one reply; false with *error when the reply does not fit
  // the schema (the entry is then left out).
  bool Add(const Value& key, const ObjectReply& reply, std::string* error);
  // The entry the last successful Add made, or kNone.
  size_t LastAdded() const { return last_; }
  // Sets `leaf` of the `rule` container of `entry` (from LastAdded) to `value`; a value the
  // schema refuses is left out.
  void AddRuleLeaf(size_t entry, const char* leaf, const std::string& value);

  // The entries in the order they were added, their children in schema order. "{}" or ""
  // without entries.
  std::string Json() const;
  std::string Xml() const;

 private:
  struct Item {
    const lysc_node* schema;  // a container or a leaf
    std::string value;        // a leaf's canonical value
    int parent;               // the container's item, or -1 for a child of the entry
    bool bare;                // a JSON number or boolean, printed without quotes
  };
  struct Entry {
    Item key;
    std::vector<Item> items;
  };

  // Checks `text` against leaf `schema` and fills `item` with its canonical value.
  bool Typed(const lysc_node* schema, const std::string& text, Item* item, std::string* error);
  // The items under `parent`, in schema order.
  std::vector<int> Children(const Entry& entry, int parent) const;
  void PrintXml(const Entry& entry, int parent, std::string* out) const;
  void PrintJson(const Entry& entry, int parent, std::string* out) const;

  ly_ctx* ctx_;
  const lysc_node* list_;
  const lysc_node* key_ = nullptr;
  std::vector<const lysc_node*> ancestors_;          // outermost first
  std::unordered_map<const lysc_node*, int> order_;  // schema order under the list
  std::vector<Entry> entries_;
  size_t last_ = kNone;
};

}  // namespace pbr::mgmt
