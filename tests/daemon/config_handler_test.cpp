// The configuration handler: keypath dispatch and the commit cycle, played as the framework does.
#include "config/config_handler.h"

#include <cstring>

#include "common/pbr_schema.h"
#include "tests/daemon/daemon_test.h"
#include "tests/support/builders.h"
#include "tests/support/commit_driver.h"
#include "tests/support/entry_view.h"
#include "tests/support/fake_limid.h"
#include "tests/support/recording_client.h"

namespace pbr {
namespace {

using build::Ipv4;
using build::Ipv4AndPlen;
using build::U32;
using fake::Change;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Optional;

class ConfigHandlerTest : public DaemonTest {
 protected:
  static Change Set(confd_hkeypath_t kp, confd_value_t value) { return {kp, MOP_VALUE_SET, value}; }
  static Change Created(confd_hkeypath_t kp) { return {kp, MOP_CREATED, {}}; }
  static Change Modified(confd_hkeypath_t kp) { return {kp, MOP_MODIFIED, {}}; }
  static Change Deleted(confd_hkeypath_t kp) { return {kp, MOP_DELETED, {}}; }

  // The changes ConfD reports for a new rule with a priority and a next hop.
  static std::vector<Change> NewRule(uint32_t id, uint32_t priority, const char* nextHop) {
    return {Created(build::RuleKp(id)), Set(build::IdKp(id), U32(id)),
            Set(build::RuleLeafKp(id, pbr_priority), U32(priority)),
            Set(build::NextHopKp(id), Ipv4(nextHop))};
  }

  confd_iter_ret Deliver(confd_hkeypath_t kp, confd_iter_op op, confd_value_t value = {}) {
    return handler.PbrGlobalHandler(&kp, op, nullptr, &value);
  }

  zlog_category_t* category = vqmw_trace_register_category("pbr-app");
  fake::RecordingClient client;
  ConfigCache cache;
  ConfigHandler handler{category, &client, &cache};
};

TEST_F(ConfigHandlerTest, OneChangeTravelsFromCommitToTheManager) {
  fake::PlayCommit(handler, NewRule(7, 10, "10.0.0.1"));
  client.calls.clear();

  fake::PlayCommit(handler,
                   {Modified(build::RuleKp(7)),
                    Set(build::MatchIpKp(7, pbr_source, pbr_mask), Ipv4AndPlen("10.1.0.0", 16))});

  ASSERT_EQ(client.Summary(), std::vector<std::string>{"set 7"});
  const Entry& sent = client.calls[0].entry;
  EXPECT_EQ(sent.getId(), 7);
  EXPECT_EQ(sent.getPriority(), 10u);
  EXPECT_THAT(view::Source(sent), Optional(std::string("10.1.0.0/255.255.0.0")));
  EXPECT_THAT(view::NextHop(sent), Optional(std::string("10.0.0.1")));
  EXPECT_TRUE(
      fake::Middleware().Logged("Handling kp '/router/pbr{7}/rule/match/source/"
                                "ipv4-address/mask/ip'"));
}

TEST_F(ConfigHandlerTest, DispatchesEachLeafByItsDeepestTag) {
  EXPECT_EQ(Deliver(build::RuleKp(7), MOP_CREATED), ITER_RECURSE);
  EXPECT_EQ(Deliver(build::IdKp(7), MOP_VALUE_SET, U32(7)), ITER_RECURSE);
  EXPECT_EQ(Deliver(build::RuleLeafKp(7, pbr_priority), MOP_VALUE_SET, U32(3)), ITER_RECURSE);
  EXPECT_EQ(Deliver(build::RuleLeafKp(7, pbr_description), MOP_VALUE_SET, build::Buf("lab")),
            ITER_RECURSE);
  EXPECT_EQ(Deliver(build::InterfaceKp(7, "eth1"), MOP_CREATED), ITER_RECURSE);
  EXPECT_EQ(Deliver(build::NextHopKp(7), MOP_VALUE_SET, Ipv4("10.0.0.1")), ITER_RECURSE);
  EXPECT_EQ(Deliver(build::MatchIpKp(7, pbr_destination, pbr_no_mask), MOP_VALUE_SET,
                    Ipv4("192.168.2.1")),
            ITER_RECURSE);

  const PbrConfig& rule = cache.configs.at(7);
  EXPECT_EQ(rule.id, 7u);
  EXPECT_EQ(rule.entry.getPriority(), 3u);
  EXPECT_EQ(rule.description, "lab");
  EXPECT_THAT(view::Ports(rule.entry), Optional(ElementsAre(fake::LimidOf("eth1").value)));
  EXPECT_THAT(view::NextHop(rule.entry), Optional(std::string("10.0.0.1")));
  EXPECT_THAT(view::Destination(rule.entry), Optional(std::string("192.168.2.1/255.255.255.255")));
  EXPECT_EQ(view::Source(rule.entry), std::nullopt);
  EXPECT_THAT(cache.changedIds, ElementsAre(7u));

  // The id leaf takes the id from its value.
  Deliver(build::IdKp(8), MOP_VALUE_SET, U32(9));
  EXPECT_EQ(cache.configs.count(8), 0u);
  EXPECT_EQ(cache.configs.at(9).id, 9u);
}

TEST_F(ConfigHandlerTest, DeletionsHandTheHandlersAZeroValue) {
  Deliver(build::RuleLeafKp(4, pbr_description), MOP_VALUE_SET, build::Buf("x"));
  // A stale new value must not be read on deletion.
  EXPECT_EQ(Deliver(build::RuleLeafKp(4, pbr_description), MOP_DELETED, build::Buf("stale")),
            ITER_RECURSE);
  EXPECT_EQ(cache.configs.at(4).description, "");
  Deliver(build::InterfaceKp(4, "eth1"), MOP_CREATED);
  EXPECT_EQ(Deliver(build::InterfaceKp(4, "eth1"), MOP_DELETED), ITER_RECURSE);
  EXPECT_EQ(view::Ports(cache.configs.at(4).entry), std::nullopt);
  EXPECT_EQ(Deliver(build::RuleKp(4), MOP_DELETED), ITER_CONTINUE);
  EXPECT_EQ(cache.configs.count(4), 0u);
  EXPECT_THAT(cache.deletedIds, ElementsAre(4u));
}

TEST_F(ConfigHandlerTest, TheIgnoredNodeIsAcceptedAndNotDescended) {
  confd_hkeypath_t kp = build::Keypath({build::Tag(pbr_router), build::Tag(pbr_pbr), U32(7),
                                        build::Tag(pbr_rule), build::Tag(pbr_ignored_node)});
  EXPECT_EQ(Deliver(kp, MOP_VALUE_SET, U32(1)), ITER_CONTINUE);
  EXPECT_THAT(cache.configs, IsEmpty());
  EXPECT_THAT(cache.changedIds, IsEmpty());
}

TEST_F(ConfigHandlerTest, UnhandledTagsAreFatalWithTheTagPrintedSigned) {
  confd_hkeypath_t nextHop =
      build::Keypath({build::Tag(pbr_router), build::Tag(pbr_pbr), U32(7), build::Tag(pbr_rule),
                      build::Tag(pbr_action), build::Tag(pbr_next_hop)});
  EXPECT_FATAL(Deliver(nextHop, MOP_CREATED),
               "backtrace\n.*fault severity=1 func=PbrGlobalHandler file=config_handler.cpp "
               "line=328 message=\\[Received MOP_VALUE_SET with unhandled tag = '1889650088'\\]");
  confd_hkeypath_t high =
      build::Keypath({build::Tag(pbr_router), build::Tag(pbr_pbr), build::Tag(0x80000000u)});
  EXPECT_FATAL(Deliver(high, MOP_DELETED), "unhandled tag = '-2147483648'");
}

TEST_F(ConfigHandlerTest, KeypathsWithoutAnyTagAreFatal) {
  confd_hkeypath_t empty = build::Keypath({});
  EXPECT_FATAL(Deliver(empty, MOP_CREATED),
               "backtrace\n.*fault severity=1 func=GetXmlTagFromKeypath file=config_handler.cpp "
               "line=191 message=\\[Error getting XML tag from keypath.\\]");
  confd_hkeypath_t keys = build::Keypath({U32(1), U32(2)});
  EXPECT_FATAL(Deliver(keys, MOP_CREATED), "line=191");
}

TEST_F(ConfigHandlerTest, KeyPositionsAreCheckedWithTheirExpressionText) {
  confd_hkeypath_t badEntry =
      build::Keypath({build::Tag(pbr_router), build::Tag(pbr_pbr), build::Buf("7")});
  EXPECT_DEATH(Deliver(badEntry, MOP_CREATED),
               "confd_iter_ret pbr::ConfigHandler::PbrGlobalHandler\\(confd_hkeypath_t\\*, "
               "confd_iter_op, confd_value_t\\*, confd_value_t\\*\\): Assertion "
               "`\\(&kp->v\\[0\\]\\[0\\]\\)->type == C_UINT32' failed");
  EXPECT_DEATH(Deliver(build::IdKp(7), MOP_VALUE_SET, build::Buf("7")),
               "`\\(value\\)->type == C_UINT32' failed");
}

TEST_F(ConfigHandlerTest, CommitsSendChangedRulesThenDeletedIdsInAscendingOrder) {
  fake::PlayCommit(handler, NewRule(5, 1, "10.0.0.5"));
  std::vector<Change> commit = NewRule(9, 1, "10.0.0.9");
  for (Change& c : NewRule(3, 1, "10.0.0.3")) commit.push_back(c);
  commit.push_back(Deleted(build::RuleKp(5)));
  client.calls.clear();

  fake::PlayCommit(handler, commit);
  EXPECT_THAT(client.Summary(), ElementsAre("set 3", "set 9", "delete 5"));
}

TEST_F(ConfigHandlerTest, ADescriptionChangeSendsTheWholeRuleWithoutTheDescription) {
  fake::PlayCommit(handler, NewRule(4, 2, "10.0.0.4"));
  client.calls.clear();
  fake::PlayCommit(handler, {Modified(build::RuleKp(4)),
                             Set(build::RuleLeafKp(4, pbr_description), build::Buf("new"))});
  ASSERT_THAT(client.Summary(), ElementsAre("set 4"));
  EXPECT_EQ(client.calls[0].entry, cache.configs.at(4).entry);
  EXPECT_THAT(view::NextHop(client.calls[0].entry), Optional(std::string("10.0.0.4")));
}

TEST_F(ConfigHandlerTest, ARuleDeletedInTheCommitSkipsItsChildren) {
  fake::PlayCommit(handler, NewRule(6, 2, "10.0.0.6"));
  client.calls.clear();
  auto results =
      fake::PlayCommit(handler, {Deleted(build::RuleKp(6)), Deleted(build::NextHopKp(6))});
  EXPECT_THAT(results, ElementsAre(ITER_CONTINUE));
  EXPECT_THAT(client.Summary(), ElementsAre("delete 6"));
  EXPECT_THAT(cache.configs, IsEmpty());
}

TEST_F(ConfigHandlerTest, EdgeCommitsSendWhatTheIdSetsHold) {
  // An id in both sets is sent, recreated empty by the commit's lookup, then deleted.
  fake::PlayCommit(handler,
                   {Set(build::NextHopKp(8), Ipv4("10.0.0.8")), Deleted(build::RuleKp(8))});
  EXPECT_THAT(client.Summary(), ElementsAre("set 8", "delete 8"));
  EXPECT_EQ(client.calls[0].entry, Entry{});
  client.calls.clear();

  // Applying twice without starting sends the same calls again.
  fake::PlayCommit(handler,
                   {Set(build::NextHopKp(2), Ipv4("10.0.0.2")), Deleted(build::RuleKp(1))});
  handler.ApplyCommitConfig();
  EXPECT_THAT(client.Summary(), ElementsAre("set 2", "delete 1", "set 2", "delete 1"));
  client.calls.clear();

  // Rule ids reach the manager as their low sixteen bits.
  fake::PlayCommit(handler, {Set(build::NextHopKp(65536 + 3), Ipv4("10.0.0.3")),
                             Deleted(build::RuleKp(65536 + 4))});
  EXPECT_THAT(client.Summary(), ElementsAre("set 3", "delete 4"));
  client.calls.clear();

  // A commit with nothing under /router/pbr sends nothing.
  fake::PlayCommit(handler, {});
  EXPECT_THAT(client.calls, IsEmpty());
  EXPECT_THAT(fake::Middleware().Texts("StartCommit"),
              ElementsAre("Entry Point", "Entry Point", "Entry Point", "Entry Point"));
}

}  // namespace
}  // namespace pbr
