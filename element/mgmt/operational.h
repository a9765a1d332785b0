// The operational view as data: get-object replies (ConfD tagged value arrays) turned into
// entries of the operational list and printed as JSON.
#pragma once

#include <libyang/libyang.h>

#include <string>

#include "element/mgmt/mgmt.pb.h"

namespace pbr::mgmt {

class OperationalView {
 public:
  // `list` is the operational list (config false, one key) the replies fill.
  OperationalView(ly_ctx* ctx, const lysc_node* list);
  ~OperationalView();
  OperationalView(const OperationalView&) = delete;
  OperationalView& operator=(const OperationalView&) = delete;

  // Adds the entry with `key` from one reply; false with *error when the reply does not fit
  // the schema (the entry is then left out).
  bool Add(const Value& key, const ObjectReply& reply, std::string* error);
  // The entry the last successful Add made.
  lyd_node* LastAdded() const { return last_; }
  // Sets `leaf` of the `rule` container of `entry` (made by Add) to `value`; values the schema
  // refuses are left out.
  void AddRuleLeaf(lyd_node* entry, const char* leaf, const std::string& value);

  std::string Json() const;
  std::string Xml() const;

 private:
  ly_ctx* ctx_;
  const lysc_node* list_;
  lyd_node* tree_ = nullptr;
  lyd_node* parent_ = nullptr;  // the list's parent container in tree_
  lyd_node* last_ = nullptr;
};

}  // namespace pbr::mgmt
