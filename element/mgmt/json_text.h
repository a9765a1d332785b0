// Data trees as RFC 7951 JSON text.
#pragma once

#include <libyang/libyang.h>

#include <string>

namespace pbr::mgmt {

// `tree` with its siblings; "{}" for no tree. `compact` leaves out indentation and newlines.
std::string PrintJson(const lyd_node* tree, bool compact = false);

}  // namespace pbr::mgmt
