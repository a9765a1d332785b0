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

  std::string Json() const;

 private:
  ly_ctx* ctx_;
  const lysc_node* list_;
  lyd_node* tree_ = nullptr;
  lyd_node* parent_ = nullptr;  // the list's parent container in tree_
};

}  // namespace pbr::mgmt
