// Data trees as RFC 7951 JSON text, or as XML.
#pragma once

#include <libyang/libyang.h>

#include <string>

namespace pbr::mgmt {

// `tree` with its siblings; "{}" for no tree. `compact` leaves out indentation and newlines.
std::string PrintJson(const lyd_node* tree, bool compact = false);
// `tree` with its siblings as XML without whitespace; "" for no tree.
std::string PrintXml(const lyd_node* tree);

}  // namespace pbr::mgmt
