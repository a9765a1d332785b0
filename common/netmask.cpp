#include "common/netmask.h"

#include <arpa/inet.h>

#include <string>

namespace pbr {
namespace {

std::string MaskText(int32_t prefixLen) {
  uint32_t mask = prefixLen == 0 ? 0 : ~uint32_t{0} << (32 - prefixLen);
  return std::to_string(mask >> 24) + "." + std::to_string((mask >> 16) & 0xff) + "." +
         std::to_string((mask >> 8) & 0xff) + "." + std::to_string(mask & 0xff);
}

std::map<int32_t, std::string> BuildPrefixLenToMask() {
  std::map<int32_t, std::string> table;
  for (int32_t len = 0; len <= 32; ++len) table.emplace(len, MaskText(len));
  return table;
}

std::map<std::string, int32_t> BuildMaskToPrefixLen() {
  std::map<std::string, int32_t> table;
  for (int32_t len = 0; len <= 32; ++len) table.emplace(MaskText(len), len);
  return table;
}

}  // namespace

const std::map<int32_t, std::string> PrefixLenToMask = BuildPrefixLenToMask();
const std::map<std::string, int32_t> MaskToPrefixLen = BuildMaskToPrefixLen();

in_addr MaskForPrefixLen(int32_t prefixLen) {
  in_addr mask{};
  inet_pton(AF_INET, PrefixLenToMask.at(prefixLen).c_str(), &mask);
  return mask;
}

}  // namespace pbr
