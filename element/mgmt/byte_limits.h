// Byte limits of string values. YANG counts a string's length in characters, but the daemons
// read values into buffers sized in bytes (a 32-character description into 33 bytes), so a
// value of multi-byte characters can pass the module and not fit. The server holds every
// length-limited string to its limit in bytes as well (NodeInfo::maxBytes).
#pragma once

#include <libyang/libyang.h>

#include <string>
#include <vector>

namespace pbr::mgmt {

// The first value in `first`, its siblings and their subtrees that is longer in bytes than its
// limit; null when all fit.
const lyd_node* FindOverlong(const lyd_node* first);

// "at most 32 bytes, the value has 33": why `node` (returned by FindOverlong) is refused.
std::string OverlongReason(const lyd_node* node);

// What FitOverlong did with one value.
struct CutValue {
  std::string path;      // the node's data path
  std::string original;  // its value as stored
  std::string kept;      // its value now
};

// Cuts each over-long leaf value in the trees at `first` to the longest prefix of whole UTF-8
// characters that fits, and says which in `cut`. Leaf-list entries cannot be cut without
// changing what they identify: the first such entry is returned and nothing further is cut.
const lyd_node* FitOverlong(lyd_node* first, std::vector<CutValue>* cut);

}  // namespace pbr::mgmt
