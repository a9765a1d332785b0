// The rule cache: find-or-create, whole-rule changes and the commit's id sets.
#include "config/cache.h"

#include "common/pbr_schema.h"
#include "tests/daemon/daemon_test.h"

namespace pbr {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class CacheTest : public DaemonTest {};

TEST_F(CacheTest, RegistersItsOwnLogCategory) {
  ConfigCache cache;
  EXPECT_THAT(fake::Middleware().categories, ElementsAre("pbr-app_cache"));
}

TEST_F(CacheTest, GetConfigCreatesAnEmptyRecordOnceAndLogsTheSizeBefore) {
  ConfigCache cache;
  PbrConfig& first = cache.GetConfig(7);
  EXPECT_EQ(first.id, 0u);
  EXPECT_EQ(first.description, "");
  EXPECT_EQ(first.entry, Entry{});
  PbrConfig& second = cache.GetConfig(7);
  EXPECT_EQ(&first, &second);
  EXPECT_EQ(cache.configs.size(), 1u);
  EXPECT_THAT(fake::Middleware().Texts("GetConfig"),
              ElementsAre("Config size = 0, id = 7", "Config size = 1, id = 7"));
  EXPECT_EQ(fake::Middleware().logs[0].category, "pbr-app_cache");
  EXPECT_EQ(fake::Middleware().logs[0].level, 10);
  EXPECT_EQ(fake::Middleware().logs[0].file, "cache.cpp");
}

TEST_F(CacheTest, GetConfigPrintsLargeIdsSigned) {
  ConfigCache cache;
  cache.GetConfig(4294967295u);
  EXPECT_THAT(fake::Middleware().Texts("GetConfig"), ElementsAre("Config size = 0, id = -1"));
}

TEST_F(CacheTest, DeletingARuleErasesItAndRecordsTheIdEvenWhenAbsent) {
  ConfigCache cache;
  cache.GetConfig(3);
  cache.GetConfig(5);
  uint32_t id = 5;
  EXPECT_EQ(cache.HandlePbrEntry(id, MOP_DELETED), ITER_CONTINUE);
  EXPECT_EQ(cache.configs.count(3), 1u);
  EXPECT_EQ(cache.configs.count(5), 0u);
  EXPECT_THAT(cache.deletedIds, ElementsAre(5u));
  EXPECT_TRUE(fake::Middleware().Logged("Deleting 'pbr'"));

  id = 9;
  EXPECT_EQ(cache.HandlePbrEntry(id, MOP_DELETED), ITER_CONTINUE);
  EXPECT_EQ(cache.configs.size(), 1u);
  EXPECT_THAT(cache.deletedIds, ElementsAre(5u, 9u));
  EXPECT_THAT(cache.changedIds, IsEmpty());
}

TEST_F(CacheTest, CreatingOrModifyingARuleMarksItChangedWithoutCreatingIt) {
  ConfigCache cache;
  uint32_t id = 5;
  for (confd_iter_op op : {MOP_CREATED, MOP_MODIFIED, MOP_VALUE_SET}) {
    EXPECT_EQ(cache.HandlePbrEntry(id, op), ITER_RECURSE);
  }
  EXPECT_THAT(cache.changedIds, ElementsAre(5u));
  EXPECT_THAT(cache.configs, IsEmpty());
}

TEST_F(CacheTest, OtherOperationsOnARuleChangeNothing) {
  ConfigCache cache;
  cache.GetConfig(5);
  uint32_t id = 5;
  for (int op : {int{MOP_MOVED_AFTER}, int{MOP_ATTR_SET}, 0, 99}) {
    EXPECT_EQ(cache.HandlePbrEntry(id, static_cast<confd_iter_op>(op)), ITER_RECURSE);
  }
  EXPECT_EQ(cache.configs.size(), 1u);
  EXPECT_THAT(cache.changedIds, IsEmpty());
  EXPECT_THAT(cache.deletedIds, IsEmpty());
}

TEST_F(CacheTest, WalksRulesInAscendingUnsignedId) {
  ConfigCache cache;
  for (uint32_t id : {4294967295u, 1u, 70000u}) cache.GetConfig(id);
  std::vector<uint32_t> order;
  for (const auto& [id, config] : cache.configs) order.push_back(id);
  EXPECT_THAT(order, ElementsAre(1u, 70000u, 4294967295u));
}

}  // namespace
}  // namespace pbr
