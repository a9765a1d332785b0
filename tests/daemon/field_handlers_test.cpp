// The field handlers: one ConfD change of one rule field applied to the cached rule.
#include <stdexcept>

#include "common/pbr_schema.h"
#include "config/cache.h"
#include "tests/daemon/daemon_test.h"
#include "tests/support/builders.h"
#include "tests/support/entry_view.h"
#include "tests/support/fake_limid.h"

namespace pbr {
namespace {

using build::Ipv4;
using build::Ipv4AndPlen;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Optional;

class FieldHandlersTest : public DaemonTest {
 protected:
  const Entry& Rule(uint32_t id) { return cache.configs.at(id).entry; }

  confd_iter_ret MatchIp(uint32_t id, uint32_t direction, uint32_t form, confd_iter_op op,
                         const confd_value_t& value) {
    confd_hkeypath_t kp = build::MatchIpKp(id, direction, form);
    return cache.HandlePbrMatchIp(&kp, op, value);
  }
  confd_iter_ret Interface(uint32_t id, confd_iter_op op, const char* name) {
    return cache.HandlePbrMatchInterface(id, op, build::Buf(name));
  }
  uint32_t Port(const char* name) { return fake::LimidOf(name).value; }

  ConfigCache cache;
  const confd_value_t none{};
};

TEST_F(FieldHandlersTest, IdPriorityAndDescriptionFillTheRecordButNeverMarkTheRule) {
  uint32_t id = 70000;
  EXPECT_EQ(cache.SetPbrId(id), ITER_RECURSE);
  EXPECT_EQ(cache.configs.at(70000).id, 70000u);
  EXPECT_EQ(Rule(70000).getId(), 70000 & 0xffff);
  EXPECT_THAT(fake::Middleware().Texts("SetPbrId"), ElementsAre("Id = '70000'"));

  // The priority creates an uncached rule with only the priority.
  id = 12;
  EXPECT_EQ(cache.SetPbrPrio(id, build::U32(40)), ITER_RECURSE);
  const PbrConfig& config = cache.configs.at(12);
  EXPECT_EQ(config.id, 0u);
  EXPECT_EQ(config.description, "");
  EXPECT_EQ(config.entry.getPriority(), 40u);
  EXPECT_TRUE(config.entry.matches().empty());
  EXPECT_THAT(fake::Middleware().Texts("SetPbrPrio"), ElementsAre("Prio = '40'"));

  // The description is replaced, left alone by other operations, and emptied.
  id = 4;
  EXPECT_EQ(cache.HandlePbrDescription(id, MOP_VALUE_SET, build::Buf("to the lab")), ITER_RECURSE);
  EXPECT_EQ(cache.configs.at(4).description, "to the lab");
  EXPECT_EQ(cache.HandlePbrDescription(id, MOP_MOVED_AFTER, build::Buf("x")), ITER_RECURSE);
  EXPECT_EQ(cache.configs.at(4).description, "to the lab");
  EXPECT_EQ(cache.HandlePbrDescription(id, MOP_DELETED, none), ITER_RECURSE);
  EXPECT_EQ(cache.configs.at(4).description, "");
  EXPECT_THAT(fake::Middleware().Texts("HandlePbrDescription"),
              ElementsAre("Set Description = 'to the lab'", "Deleting."));
  // It is read up to its first NUL.
  cache.HandlePbrDescription(id, MOP_CREATED, build::Buf(std::string("abc\0def", 7)));
  EXPECT_EQ(cache.configs.at(4).description, "abc");
  EXPECT_THAT(cache.changedIds, IsEmpty());
}

TEST_F(FieldHandlersTest, NextHopIsReplacedAndRemovedAndAlwaysMarksTheRule) {
  uint32_t id = 3;
  confd_value_t first = Ipv4("10.0.0.1");
  confd_value_t second = Ipv4("10.0.0.2");
  cache.HandlePbrActionNextHop(id, MOP_CREATED, first);
  EXPECT_EQ(cache.HandlePbrActionNextHop(id, MOP_VALUE_SET, second), ITER_RECURSE);
  EXPECT_THAT(view::NextHop(Rule(3)), Optional(std::string("10.0.0.2")));
  confd_value_t unused{};
  EXPECT_EQ(cache.HandlePbrActionNextHop(id, MOP_DELETED, unused), ITER_RECURSE);
  EXPECT_EQ(view::NextHop(Rule(3)), std::nullopt);
  EXPECT_THAT(fake::Middleware().Texts("HandlePbrActionNextHop"),
              ElementsAre("Next-hop = '10.0.0.1'", "Next-hop = '10.0.0.2'", "Deleting l3 next-hop.",
                          "Next-hop = '0.0.0.0'"));

  cache.changedIds.clear();
  id = 8;
  EXPECT_EQ(cache.HandlePbrActionNextHop(id, MOP_MOVED_AFTER, unused), ITER_RECURSE);
  EXPECT_THAT(cache.changedIds, ElementsAre(8u));
  EXPECT_EQ(view::NextHop(Rule(8)), std::nullopt);
}

TEST_F(FieldHandlersTest, AddressRecordsAreSkippedWhenTheTraceLevelIsOff) {
  fake::Middleware().traceEnabled = false;
  uint32_t id = 3;
  confd_value_t nextHop = Ipv4("10.0.0.1");
  cache.HandlePbrActionNextHop(id, MOP_CREATED, nextHop);
  MatchIp(3, pbr_source, pbr_no_mask, MOP_CREATED, Ipv4("192.0.2.7"));
  EXPECT_THAT(fake::Middleware().logs, IsEmpty());
  EXPECT_EQ(fake::Middleware().levelQueries, 2);  // asked once per address record, not formatted
  EXPECT_THAT(view::NextHop(Rule(3)), Optional(std::string("10.0.0.1")));
}

TEST_F(FieldHandlersTest, AddressesGetTheirMaskAndKeepTheirHostBits) {
  EXPECT_EQ(MatchIp(1, pbr_source, pbr_no_mask, MOP_CREATED, Ipv4("192.0.2.7")), ITER_RECURSE);
  EXPECT_THAT(view::Source(Rule(1)), Optional(std::string("192.0.2.7/255.255.255.255")));
  EXPECT_THAT(fake::Middleware().Texts("SetPbrMatchSrcIp"),
              ElementsAre("source ip = '192.0.2.7 - 255.255.255.255'"));
  MatchIp(1, pbr_destination, pbr_mask, MOP_VALUE_SET, Ipv4AndPlen("10.1.2.3", 8));
  EXPECT_THAT(view::Destination(Rule(1)), Optional(std::string("10.1.2.3/255.0.0.0")));
  EXPECT_THAT(fake::Middleware().Texts("SetPbrMatchDstIp"),
              ElementsAre("destination ip = '10.1.2.3 - 255.0.0.0'"));
  MatchIp(1, pbr_destination, pbr_mask, MOP_VALUE_SET, Ipv4AndPlen("0.0.0.0", 0));
  EXPECT_THAT(view::Destination(Rule(1)), Optional(std::string("0.0.0.0/0.0.0.0")));
  // Another operation stores the zero match.
  EXPECT_EQ(MatchIp(1, pbr_source, pbr_mask, MOP_MOVED_AFTER, none), ITER_RECURSE);
  EXPECT_THAT(view::Source(Rule(1)), Optional(std::string("0.0.0.0/0.0.0.0")));
}

TEST_F(FieldHandlersTest, DeletingAnAddressRemovesThatMatchWhateverItsFormAndSkipsChildren) {
  MatchIp(1, pbr_source, pbr_mask, MOP_CREATED, Ipv4AndPlen("10.1.0.0", 16));
  MatchIp(1, pbr_destination, pbr_no_mask, MOP_CREATED, Ipv4("192.168.2.1"));
  EXPECT_EQ(MatchIp(1, pbr_source, pbr_no_mask, MOP_DELETED, none), ITER_CONTINUE);
  EXPECT_EQ(view::Source(Rule(1)), std::nullopt);
  EXPECT_THAT(view::Destination(Rule(1)), Optional(std::string("192.168.2.1/255.255.255.255")));
  EXPECT_EQ(MatchIp(1, pbr_destination, pbr_mask, MOP_DELETED, none), ITER_CONTINUE);
  EXPECT_EQ(view::Destination(Rule(1)), std::nullopt);
  // Every address change marks the rule the keypath names.
  MatchIp(22, pbr_source, pbr_mask, MOP_DELETED, none);
  EXPECT_THAT(cache.changedIds, ElementsAre(1u, 22u));
}

TEST_F(FieldHandlersTest, APrefixLengthAboveThirtyTwoLeavesTheMatchButMarksTheRule) {
  MatchIp(1, pbr_source, pbr_mask, MOP_CREATED, Ipv4AndPlen("10.1.0.0", 16));
  cache.changedIds.clear();
  EXPECT_THROW(MatchIp(1, pbr_source, pbr_mask, MOP_VALUE_SET, Ipv4AndPlen("10.1.0.0", 33)),
               std::out_of_range);
  EXPECT_THAT(view::Source(Rule(1)), Optional(std::string("10.1.0.0/255.255.0.0")));
  EXPECT_THAT(cache.changedIds, ElementsAre(1u));
}

TEST_F(FieldHandlersTest, UnknownMatchDirectionIsAFatalFault) {
  const uint32_t bogus = pbr_action;
  EXPECT_FATAL(MatchIp(1, bogus, pbr_mask, MOP_CREATED, Ipv4AndPlen("10.1.0.0", 16)),
               "backtrace\n.*fault severity=1 func=HandlePbrMatchIp file=cache.cpp line=215 "
               "message=\\[Invalid ip match tag = '571883887'\\]");
  EXPECT_FATAL(MatchIp(1, 0x80000001u, pbr_mask, MOP_DELETED, none),
               "line=215 message=\\[Invalid ip match tag = '-2147483647'\\]");
}

TEST_F(FieldHandlersTest, ValueTypesAreCheckedWithTheirExpressionText) {
  uint32_t id = 1;
  EXPECT_DEATH(cache.SetPbrPrio(id, build::Buf("ten")), "\\(&value\\)->type == C_UINT32");
  EXPECT_DEATH(MatchIp(1, pbr_source, pbr_mask, MOP_CREATED, Ipv4("10.0.0.1")),
               "\\(&value\\)->type == C_IPV4_AND_PLEN");
}

TEST_F(FieldHandlersTest, InterfacesAreAppendedInOrderAndDeletedWithEveryEqualElement) {
  EXPECT_EQ(Interface(2, MOP_CREATED, "eth1"), ITER_RECURSE);
  Interface(2, MOP_CREATED, "eth2");
  Interface(2, MOP_CREATED, "eth1");
  EXPECT_THAT(view::Ports(Rule(2)),
              Optional(ElementsAre(Port("eth1"), Port("eth2"), Port("eth1"))));
  // Another operation writes the list back unchanged.
  EXPECT_EQ(Interface(2, MOP_MOVED_AFTER, "eth2"), ITER_RECURSE);
  EXPECT_EQ(Interface(2, MOP_DELETED, "eth1"), ITER_RECURSE);
  EXPECT_THAT(view::Ports(Rule(2)), Optional(ElementsAre(Port("eth2"))));
  EXPECT_THAT(fake::Middleware().Texts("HandlePbrMatchInterface"),
              ElementsAre("Setting Interface name 'eth1', total 1",
                          "Setting Interface name 'eth2', total 2",
                          "Setting Interface name 'eth1', total 3", "Deleting Interface 'eth1'."));
  EXPECT_THAT(cache.changedIds, ElementsAre(2u));
}

TEST_F(FieldHandlersTest, DeletingTheLastInterfaceRemovesTheMatch) {
  Interface(2, MOP_CREATED, "eth1");
  Interface(2, MOP_DELETED, "eth1");
  EXPECT_EQ(view::Ports(Rule(2)), std::nullopt);
  // Deleting a name the rule does not have still logs, and leaves the list as it was.
  Interface(3, MOP_CREATED, "eth2");
  cache.changedIds.clear();
  Interface(3, MOP_DELETED, "eth9");
  Interface(4, MOP_DELETED, "eth9");
  EXPECT_THAT(view::Ports(Rule(3)), Optional(ElementsAre(Port("eth2"))));
  EXPECT_EQ(view::Ports(Rule(4)), std::nullopt);
  EXPECT_THAT(fake::Middleware().Texts("HandlePbrMatchInterface"),
              ElementsAre("Setting Interface name 'eth1', total 1", "Deleting Interface 'eth1'.",
                          "Setting Interface name 'eth2', total 1", "Deleting Interface 'eth9'.",
                          "Deleting Interface 'eth9'."));
  EXPECT_THAT(cache.changedIds, ElementsAre(3u, 4u));
}

}  // namespace
}  // namespace pbr
