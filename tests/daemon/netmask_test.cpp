#include "common/netmask.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <stdexcept>

namespace pbr {
namespace {

TEST(NetmaskTables, OneRowPerPrefixLengthThatRoundTripsThroughTheAddressConversions) {
  EXPECT_EQ(PrefixLenToMask.size(), 33u);
  EXPECT_EQ(MaskToPrefixLen.size(), 33u);
  EXPECT_EQ(PrefixLenToMask.at(0), "0.0.0.0");
  EXPECT_EQ(PrefixLenToMask.at(17), "255.255.128.0");
  EXPECT_EQ(PrefixLenToMask.at(32), "255.255.255.255");
  for (const auto& [len, text] : PrefixLenToMask) {
    in_addr mask{};
    ASSERT_EQ(inet_pton(AF_INET, text.c_str(), &mask), 1) << text;
    EXPECT_EQ(ntohl(mask.s_addr), len == 0 ? 0u : ~uint32_t{0} << (32 - len)) << len;
    char back[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &mask, back, sizeof(back));
    EXPECT_EQ(back, text);
    EXPECT_EQ(MaskToPrefixLen.at(back), len);
  }
}

TEST(NetmaskTables, KeysWithoutARowFailWithMapAt) {
  for (int32_t len : {-1, 33}) {
    try {
      PrefixLenToMask.at(len);
      FAIL() << len;
    } catch (const std::out_of_range& e) {
      EXPECT_STREQ(e.what(), "map::at");
    }
  }
  // Not contiguous, and the right mask spelled with a leading zero.
  for (const char* text : {"255.0.255.0", "255.255.255.000", " 255.255.255.0"}) {
    EXPECT_THROW(MaskToPrefixLen.at(text), std::out_of_range) << text;
  }
}

}  // namespace
}  // namespace pbr
