// Interface names to logical interface identifiers and back.
#include <gtest/gtest.h>

#include "element/pbr/intf_names.h"
#include "platform/limid.h"

namespace {

TEST(Limid, EveryNameGetsAStableIdentifierThatMapsBack) {
  limid_t first{}, again{}, other{}, existing{};
  EXPECT_EQ(limid_from_intfname(&first, "pbrtest-none0"), 0);
  EXPECT_EQ(limid_from_intfname(&again, "pbrtest-none0"), 0);
  EXPECT_EQ(limid_from_intfname(&other, "pbrtest-none1"), 0);
  EXPECT_EQ(limid_from_intfname(&existing, "lo"), 0);
  EXPECT_EQ(first, again);
  EXPECT_FALSE(first == other);
  EXPECT_EQ(pbr::IntfNameFromLimid(first), "pbrtest-none0");
  EXPECT_EQ(pbr::IntfNameFromLimid(other), "pbrtest-none1");
  EXPECT_EQ(pbr::IntfNameFromLimid(existing), "lo");

  // Names no interface can have still map back.
  limid_t too_long{};
  EXPECT_EQ(limid_from_intfname(&too_long, "a-name-longer-than-ifnamsiz"), 0);
  EXPECT_EQ(pbr::IntfNameFromLimid(too_long), "a-name-longer-than-ifnamsiz");
}

TEST(Limid, IdentifiersNeverHandedOutHaveNoName) {
  EXPECT_EQ(pbr::IntfNameFromLimid(limid_t{0}), std::nullopt);
  EXPECT_EQ(pbr::IntfNameFromLimid(limid_t{pbr::kLimidRegistryBit}), std::nullopt);
  EXPECT_EQ(pbr::IntfNameFromLimid(limid_t{0xffffffffu}), std::nullopt);
  EXPECT_EQ(pbr::IntfNameFromLimid(limid_t{0x7ffffff0u}), std::nullopt);
  limid_t id{7};
  EXPECT_NE(limid_from_intfname(&id, nullptr), 0);
  EXPECT_EQ(limid_from_intfname(nullptr, "lo"), -1);
}

}  // namespace
