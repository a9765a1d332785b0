// Prefix length <-> dotted mask text, for prefix lengths 0 to 32. Both tables are complete before
// main runs and are only read afterwards. Lookups are by exact key: a key without a row throws
// std::out_of_range ("map::at").
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <map>
#include <string>

namespace pbr {

extern const std::map<int32_t, std::string> PrefixLenToMask;
extern const std::map<std::string, int32_t> MaskToPrefixLen;

// The mask of `prefixLen`, converted from its PrefixLenToMask text ("map::at" past 32).
in_addr MaskForPrefixLen(int32_t prefixLen);

}  // namespace pbr
