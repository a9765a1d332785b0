// The rule cache: find-or-create, whole-rule changes and the commit's id sets.
#include "config/cache.h"

#include "common/pbr_schema.h"
#include "tests/daemon/daemon_test.h"

namespace pbr {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class CacheTest : public DaemonTest {};

TEST_F(CacheTest, GetConfigCreatesAnEmptyRecordOnceAndLogsTheSizeBefore) {
  ConfigCache cache;
  EXPECT_THAT(fake::Middleware().categories, ElementsAre("pbr-app_cache"));
  PbrConfig& first = cache.GetConfig(7);
  EXPECT_EQ(first.id, 0u);
  EXPECT_EQ(first.description, "");
  EXPECT_EQ(first.entry, Entry{});
  EXPECT_EQ(&first, &cache.GetConfig(7));
  cache.GetConfig(4294967295u);  // printed signed
  cache.GetConfig(1);
  EXPECT_THAT(fake::Middleware().Texts("GetConfig"),
              ElementsAre("Config size = 0, id = 7", "Config size = 1, id = 7",
                          "Config size = 1, id = -1", "Config size = 2, id = 1"));
  EXPECT_EQ(fake::Middleware().logs[0].category, "pbr-app_cache");
  EXPECT_EQ(fake::Middleware().logs[0].level, 10);
  EXPECT_EQ(fake::Middleware().logs[0].file, "cache.cpp");
  // Rules are walked in ascending unsigned id.
  std::vector<uint32_t> order;
  for (const auto& [id, config] : cache.configs) order.push_back(id);
  EXPECT_THAT(order, ElementsAre(1u, 7u, 4294967295u));
}

TEST_F(CacheTest, RuleOperationsFillTheIdSetsAndOnlyDeletionTouchesTheRecords) {
  ConfigCache cache;
  cache.GetConfig(3);
  cache.GetConfig(5);
  uint32_t id = 5;
  EXPECT_EQ(cache.HandlePbrEntry(id, MOP_DELETED), ITER_CONTINUE);
  EXPECT_EQ(cache.configs.count(3), 1u);
  EXPECT_EQ(cache.configs.count(5), 0u);
  EXPECT_TRUE(fake::Middleware().Logged("Deleting 'pbr'"));
  id = 9;  // absent: recorded all the same
  EXPECT_EQ(cache.HandlePbrEntry(id, MOP_DELETED), ITER_CONTINUE);
  EXPECT_THAT(cache.deletedIds, ElementsAre(5u, 9u));
  EXPECT_THAT(cache.changedIds, IsEmpty());

  // Creating or modifying marks the rule changed without creating it; other operations do nothing.
  id = 6;
  for (confd_iter_op op : {MOP_CREATED, MOP_MODIFIED, MOP_VALUE_SET}) {
    EXPECT_EQ(cache.HandlePbrEntry(id, op), ITER_RECURSE);
  }
  id = 3;
  for (int op : {int{MOP_MOVED_AFTER}, int{MOP_ATTR_SET}, 0, 99}) {
    EXPECT_EQ(cache.HandlePbrEntry(id, static_cast<confd_iter_op>(op)), ITER_RECURSE);
  }
  EXPECT_THAT(cache.changedIds, ElementsAre(6u));
  EXPECT_EQ(cache.configs.size(), 1u);
  EXPECT_THAT(cache.deletedIds, ElementsAre(5u, 9u));
}

}  // namespace
}  // namespace pbr
