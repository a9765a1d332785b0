// The rule cache and its field handlers: each ConfD change of one rule field applied to the
// cached rule, the commit's id sets, and the records written on the way.
#include "config/cache.h"

#include <stdexcept>

#include "common/pbr_schema.h"
#include "tests/daemon/daemon_test.h"
#include "tests/support/builders.h"
#include "tests/support/entry_builder.h"

namespace pbr {
namespace {

using build::Ipv4;
using build::Ipv4AndPlen;
using pbrtest::EntryBuilder;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class CacheTest : public DaemonTest {
 protected:
  const Entry& Rule(uint32_t id) { return cache.configs.at(id).entry; }
  // `where` is "source/ipv4-address/mask" and the like.
  confd_iter_ret MatchIp(uint32_t id, const std::string& where, confd_iter_op op,
                         const confd_value_t& value) {
    confd_hkeypath_t kp =
        build::Kp("/router/pbr{" + std::to_string(id) + "}/rule/match/" + where + "/ip");
    return cache.HandlePbrMatchIp(&kp, op, value);
  }
  confd_iter_ret NextHop(uint32_t id, confd_iter_op op, confd_value_t value) {
    return cache.HandlePbrActionNextHop(id, op, value);
  }
  confd_iter_ret Interface(uint32_t id, confd_iter_op op, const char* name) {
    return cache.HandlePbrMatchInterface(id, op, build::Buf(name));
  }
  std::vector<std::string> Texts(const char* func) { return fake::Middleware().Texts(func); }

  ConfigCache cache;
  const confd_value_t none{};
};

TEST_F(CacheTest, GetConfigCreatesAnEmptyRecordOnceAndLogsTheSizeBefore) {
  EXPECT_THAT(fake::Middleware().categories, ElementsAre("pbr-app_cache"));
  PbrConfig& first = cache.GetConfig(7);
  EXPECT_EQ(first.id, 0u);
  EXPECT_EQ(first.description, "");
  EXPECT_EQ(first.entry, Entry{});
  EXPECT_EQ(&first, &cache.GetConfig(7));
  cache.GetConfig(4294967295u);  // printed signed
  cache.GetConfig(1);
  EXPECT_THAT(Texts("GetConfig"),
              ElementsAre("Config size = 0, id = 7", "Config size = 1, id = 7",
                          "Config size = 1, id = -1", "Config size = 2, id = 1"));
  const fake::LogRecord& record = fake::Middleware().logs[0];
  EXPECT_EQ(record.category, "pbr-app_cache");
  EXPECT_EQ(record.level, 10);
  EXPECT_EQ(record.file, "cache.cpp");
  // Rules are walked in ascending unsigned id.
  std::vector<uint32_t> order;
  for (const auto& [id, config] : cache.configs) order.push_back(id);
  EXPECT_THAT(order, ElementsAre(1u, 7u, 4294967295u));
}

TEST_F(CacheTest, RuleOperationsFillTheIdSetsAndOnlyDeletionTouchesTheRecords) {
  cache.GetConfig(3);
  cache.GetConfig(5);
  for (uint32_t id : {5u, 9u}) {  // 9 is absent: recorded all the same
    EXPECT_EQ(cache.HandlePbrEntry(id, MOP_DELETED), ITER_CONTINUE);
  }
  EXPECT_THAT(Texts("HandlePbrEntry"), ElementsAre("Deleting 'pbr'", "Deleting 'pbr'"));
  // Creating or modifying marks the rule changed without creating it; other operations do nothing.
  uint32_t id = 6;
  for (confd_iter_op op : {MOP_CREATED, MOP_MODIFIED, MOP_VALUE_SET}) {
    EXPECT_EQ(cache.HandlePbrEntry(id, op), ITER_RECURSE);
    ++id;
  }
  id = 3;
  for (int op : {int{MOP_MOVED_AFTER}, int{MOP_ATTR_SET}, 0, 99}) {
    EXPECT_EQ(cache.HandlePbrEntry(id, static_cast<confd_iter_op>(op)), ITER_RECURSE);
  }
  EXPECT_THAT(cache.changedIds, ElementsAre(6u, 7u, 8u));
  EXPECT_THAT(cache.deletedIds, ElementsAre(5u, 9u));
  ASSERT_EQ(cache.configs.size(), 1u);
  EXPECT_EQ(cache.configs.count(3), 1u);
}

TEST_F(CacheTest, IdPriorityAndDescriptionFillTheRecordButNeverMarkTheRule) {
  uint32_t id = 70000;
  EXPECT_EQ(cache.SetPbrId(id), ITER_RECURSE);
  EXPECT_EQ(cache.configs.at(70000).id, 70000u);
  EXPECT_EQ(Rule(70000).getId(), 70000 & 0xffff);
  EXPECT_THAT(Texts("SetPbrId"), ElementsAre("Id = '70000'"));

  // The priority creates an uncached rule with only the priority.
  id = 12;
  EXPECT_EQ(cache.SetPbrPrio(id, build::U32(40)), ITER_RECURSE);
  EXPECT_EQ(cache.configs.at(12).id, 0u);
  EXPECT_EQ(Rule(12), EntryBuilder(0).Priority(40).Build());
  EXPECT_THAT(Texts("SetPbrPrio"), ElementsAre("Prio = '40'"));

  // The description is replaced, left alone by other operations, emptied, and read up to a NUL.
  id = 4;
  EXPECT_EQ(cache.HandlePbrDescription(id, MOP_VALUE_SET, build::Buf("to the lab")), ITER_RECURSE);
  EXPECT_EQ(cache.HandlePbrDescription(id, MOP_MOVED_AFTER, build::Buf("x")), ITER_RECURSE);
  EXPECT_EQ(cache.configs.at(4).description, "to the lab");
  EXPECT_EQ(cache.HandlePbrDescription(id, MOP_DELETED, none), ITER_RECURSE);
  EXPECT_EQ(cache.configs.at(4).description, "");
  EXPECT_THAT(Texts("HandlePbrDescription"),
              ElementsAre("Set Description = 'to the lab'", "Deleting."));
  cache.HandlePbrDescription(id, MOP_CREATED, build::Buf(std::string("abc\0def", 7)));
  EXPECT_EQ(cache.configs.at(4).description, "abc");
  EXPECT_THAT(cache.changedIds, IsEmpty());
}

TEST_F(CacheTest, NextHopIsReplacedAndRemovedAndAlwaysMarksTheRule) {
  uint32_t id = 3;
  NextHop(id, MOP_CREATED, Ipv4("10.0.0.1"));
  EXPECT_EQ(NextHop(id, MOP_VALUE_SET, Ipv4("10.0.0.2")), ITER_RECURSE);
  EXPECT_EQ(Rule(3), EntryBuilder(0).Via("10.0.0.2").Build());
  EXPECT_EQ(NextHop(id, MOP_DELETED, none), ITER_RECURSE);
  EXPECT_EQ(Rule(3), Entry{});
  EXPECT_THAT(Texts("HandlePbrActionNextHop"),
              ElementsAre("Next-hop = '10.0.0.1'", "Next-hop = '10.0.0.2'", "Deleting l3 next-hop.",
                          "Next-hop = '0.0.0.0'"));
  id = 8;
  EXPECT_EQ(NextHop(id, MOP_MOVED_AFTER, none), ITER_RECURSE);
  EXPECT_EQ(Rule(8), Entry{});
  EXPECT_THAT(cache.changedIds, ElementsAre(3u, 8u));
}

TEST_F(CacheTest, AddressRecordsAreSkippedWhenTheTraceLevelIsOff) {
  fake::Middleware().traceEnabled = false;
  uint32_t id = 3;
  NextHop(id, MOP_CREATED, Ipv4("10.0.0.1"));
  MatchIp(3, "source/ipv4-address/no-mask", MOP_CREATED, Ipv4("192.0.2.7"));
  EXPECT_THAT(fake::Middleware().logs, IsEmpty());
  EXPECT_EQ(fake::Middleware().levelQueries, 2);  // asked once per address record, not formatted
  EXPECT_EQ(Rule(3), EntryBuilder(0).From("192.0.2.7").Via("10.0.0.1").Build());
}

TEST_F(CacheTest, AddressesGetTheirMaskKeepTheirHostBitsAndAreDeletedWhateverTheirForm) {
  EXPECT_EQ(MatchIp(1, "source/ipv4-address/no-mask", MOP_CREATED, Ipv4("192.0.2.7")),
            ITER_RECURSE);
  MatchIp(1, "destination/ipv4-address/mask", MOP_VALUE_SET, Ipv4AndPlen("10.1.2.3", 8));
  EXPECT_EQ(Rule(1), EntryBuilder(0).From("192.0.2.7/32").To("10.1.2.3/8").Build());
  EXPECT_THAT(Texts("SetPbrMatchSrcIp"), ElementsAre("source ip = '192.0.2.7 - 255.255.255.255'"));
  EXPECT_THAT(Texts("SetPbrMatchDstIp"), ElementsAre("destination ip = '10.1.2.3 - 255.0.0.0'"));
  // Length 0, and another operation, store the zero match.
  MatchIp(1, "destination/ipv4-address/mask", MOP_VALUE_SET, Ipv4AndPlen("0.0.0.0", 0));
  EXPECT_EQ(MatchIp(1, "source/ipv4-address/mask", MOP_MOVED_AFTER, none), ITER_RECURSE);
  EXPECT_EQ(Rule(1), EntryBuilder(0).From("0.0.0.0/0").To("0.0.0.0/0").Build());

  // A deletion removes the match of its direction and skips the children.
  EXPECT_EQ(MatchIp(1, "source/ipv4-address/no-mask", MOP_DELETED, none), ITER_CONTINUE);
  EXPECT_EQ(Rule(1), EntryBuilder(0).To("0.0.0.0/0").Build());
  EXPECT_EQ(MatchIp(1, "destination/ipv4-address/mask", MOP_DELETED, none), ITER_CONTINUE);
  EXPECT_EQ(Rule(1), Entry{});
  // Every address change marks the rule the keypath names.
  MatchIp(22, "source/ipv4-address/mask", MOP_DELETED, none);
  EXPECT_THAT(cache.changedIds, ElementsAre(1u, 22u));
}

TEST_F(CacheTest, APrefixLengthAboveThirtyTwoLeavesTheMatchButMarksTheRule) {
  MatchIp(1, "source/ipv4-address/mask", MOP_CREATED, Ipv4AndPlen("10.1.0.0", 16));
  cache.changedIds.clear();
  EXPECT_THROW(MatchIp(1, "source/ipv4-address/mask", MOP_VALUE_SET, Ipv4AndPlen("10.1.0.0", 33)),
               std::out_of_range);
  EXPECT_EQ(Rule(1), EntryBuilder(0).From("10.1.0.0/16").Build());
  EXPECT_THAT(cache.changedIds, ElementsAre(1u));
}

TEST_F(CacheTest, UnknownDirectionsAreFatalAndValueTypesAsserted) {
  EXPECT_FATAL(MatchIp(1, "action/ipv4-address/mask", MOP_CREATED, Ipv4AndPlen("10.1.0.0", 16)),
               "backtrace\n.*fault severity=1 func=HandlePbrMatchIp file=cache.cpp line=215 "
               "message=\\[Invalid ip match tag = '571883887'\\]");
  confd_hkeypath_t high = build::Kp("/router/pbr{1}/rule/match/source/ipv4-address/mask/ip");
  high.v[3][0] = build::Tag(0x80000001u);
  EXPECT_FATAL(cache.HandlePbrMatchIp(&high, MOP_DELETED, none),
               "line=215 message=\\[Invalid ip match tag = '-2147483647'\\]");
  uint32_t id = 1;
  EXPECT_DEATH(cache.SetPbrPrio(id, build::Buf("ten")), "\\(&value\\)->type == C_UINT32");
  EXPECT_DEATH(MatchIp(1, "source/ipv4-address/mask", MOP_CREATED, Ipv4("10.0.0.1")),
               "\\(&value\\)->type == C_IPV4_AND_PLEN");
}

TEST_F(CacheTest, InterfacesAreAppendedInOrderAndDeletedWithEveryEqualElement) {
  EXPECT_EQ(Interface(2, MOP_CREATED, "eth1"), ITER_RECURSE);
  Interface(2, MOP_CREATED, "eth2");
  Interface(2, MOP_CREATED, "eth1");
  EXPECT_EQ(Rule(2), EntryBuilder(0).Iif("eth1").Iif("eth2").Iif("eth1").Build());
  // Another operation writes the list back unchanged.
  EXPECT_EQ(Interface(2, MOP_MOVED_AFTER, "eth2"), ITER_RECURSE);
  EXPECT_EQ(Interface(2, MOP_DELETED, "eth1"), ITER_RECURSE);
  EXPECT_EQ(Rule(2), EntryBuilder(0).Iif("eth2").Build());
  // A name the rule lacks changes nothing but is logged; the last one takes the match with it.
  Interface(2, MOP_DELETED, "eth9");
  EXPECT_EQ(Rule(2), EntryBuilder(0).Iif("eth2").Build());
  Interface(2, MOP_DELETED, "eth2");
  EXPECT_EQ(Rule(2), Entry{});
  Interface(3, MOP_DELETED, "eth9");
  EXPECT_EQ(Rule(3), Entry{});
  EXPECT_THAT(Texts("HandlePbrMatchInterface"),
              ElementsAre("Setting Interface name 'eth1', total 1",
                          "Setting Interface name 'eth2', total 2",
                          "Setting Interface name 'eth1', total 3", "Deleting Interface 'eth1'.",
                          "Deleting Interface 'eth9'.", "Deleting Interface 'eth2'.",
                          "Deleting Interface 'eth9'."));
  EXPECT_THAT(cache.changedIds, ElementsAre(2u, 3u));
}

}  // namespace
}  // namespace pbr
