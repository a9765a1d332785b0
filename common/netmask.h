// Prefix length <-> dotted mask text, for prefix lengths 0 to 32. Both tables are complete before
// main runs and are only read afterwards. Lookups are by exact key: a key without a row throws
// std::out_of_range ("map::at").
#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace pbr {

extern const std::map<int32_t, std::string> PrefixLenToMask;
extern const std::map<std::string, int32_t> MaskToPrefixLen;

}  // namespace pbr
