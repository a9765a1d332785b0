// The configuration handler: keypath dispatch and the commit cycle, played as the framework does.
#include "config/config_handler.h"

#include "common/pbr_schema.h"
#include "tests/daemon/daemon_test.h"
#include "tests/support/builders.h"
#include "tests/support/commit_driver.h"
#include "tests/support/entry_builder.h"
#include "tests/support/recording_client.h"

namespace pbr {
namespace {

using build::Ipv4;
using build::Kp;
using build::U32;
using fake::Change;
using pbrtest::EntryBuilder;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::string Rule(uint32_t id, const std::string& below = "") {
  return "/router/pbr{" + std::to_string(id) + "}" + below;
}

class ConfigHandlerTest : public DaemonTest {
 protected:
  static Change Set(const std::string& path, confd_value_t value) {
    return {Kp(path), MOP_VALUE_SET, value};
  }
  static Change Op(confd_iter_op op, const std::string& path) { return {Kp(path), op, {}}; }

  // The changes ConfD reports for a new rule with a priority and a next hop.
  static std::vector<Change> NewRule(uint32_t id, uint32_t priority, const char* nextHop) {
    return {Op(MOP_CREATED, Rule(id)), Set(Rule(id, "/id"), U32(id)),
            Set(Rule(id, "/rule/priority"), U32(priority)),
            Set(Rule(id, "/rule/action/next-hop/ip"), Ipv4(nextHop))};
  }

  confd_iter_ret Deliver(confd_hkeypath_t kp, confd_iter_op op, confd_value_t value = {}) {
    return handler.PbrGlobalHandler(&kp, op, nullptr, &value);
  }

  zlog_category_t* category = vqmw_trace_register_category("pbr-app");
  fake::RecordingClient client;
  ConfigCache cache;
  ConfigHandler handler{category, &client, &cache};
};

TEST_F(ConfigHandlerTest, DispatchesEachLeafByItsDeepestTag) {
  EXPECT_EQ(Deliver(Kp(Rule(7)), MOP_CREATED), ITER_RECURSE);
  EXPECT_EQ(Deliver(Kp(Rule(7, "/id")), MOP_VALUE_SET, U32(7)), ITER_RECURSE);
  EXPECT_EQ(Deliver(Kp(Rule(7, "/rule/priority")), MOP_VALUE_SET, U32(3)), ITER_RECURSE);
  EXPECT_EQ(Deliver(Kp(Rule(7, "/rule/description")), MOP_VALUE_SET, build::Buf("lab")),
            ITER_RECURSE);
  EXPECT_EQ(Deliver(Kp(Rule(7, "/rule/match/interface{eth1}")), MOP_CREATED), ITER_RECURSE);
  EXPECT_EQ(Deliver(Kp(Rule(7, "/rule/action/next-hop/ip")), MOP_VALUE_SET, Ipv4("10.0.0.1")),
            ITER_RECURSE);
  EXPECT_EQ(Deliver(Kp(Rule(7, "/rule/match/destination/ipv4-address/no-mask/ip")), MOP_VALUE_SET,
                    Ipv4("192.168.2.1")),
            ITER_RECURSE);
  EXPECT_EQ(cache.configs.at(7).id, 7u);
  EXPECT_EQ(cache.configs.at(7).description, "lab");
  EXPECT_EQ(cache.configs.at(7).entry,
            EntryBuilder(7).Priority(3).Iif("eth1").Via("10.0.0.1").To("192.168.2.1").Build());
  EXPECT_TRUE(fake::Middleware().Logged(
      "Handling kp '/router/pbr{7}/rule/match/destination/ipv4-address/no-mask/ip'"));

  // The id leaf takes the id from its value.
  Deliver(Kp(Rule(8, "/id")), MOP_VALUE_SET, U32(9));
  EXPECT_EQ(cache.configs.count(8), 0u);
  EXPECT_EQ(cache.configs.at(9).id, 9u);
  // The ignored node is accepted and not descended.
  EXPECT_EQ(Deliver(Kp(Rule(10, "/rule/ignored-node")), MOP_VALUE_SET, U32(1)), ITER_CONTINUE);
  EXPECT_EQ(cache.configs.count(10), 0u);
  EXPECT_THAT(cache.changedIds, ElementsAre(7u));
}

TEST_F(ConfigHandlerTest, DeletionsHandTheHandlersAZeroValue) {
  Deliver(Kp(Rule(4, "/rule/description")), MOP_VALUE_SET, build::Buf("x"));
  Deliver(Kp(Rule(4, "/rule/match/interface{eth1}")), MOP_CREATED);
  // A stale new value must not be read on deletion.
  EXPECT_EQ(Deliver(Kp(Rule(4, "/rule/description")), MOP_DELETED, build::Buf("stale")),
            ITER_RECURSE);
  EXPECT_EQ(Deliver(Kp(Rule(4, "/rule/match/interface{eth1}")), MOP_DELETED), ITER_RECURSE);
  EXPECT_EQ(cache.configs.at(4).description, "");
  EXPECT_EQ(cache.configs.at(4).entry, Entry{});
  EXPECT_EQ(Deliver(Kp(Rule(4)), MOP_DELETED), ITER_CONTINUE);
  EXPECT_EQ(cache.configs.count(4), 0u);
  EXPECT_THAT(cache.deletedIds, ElementsAre(4u));
}

TEST_F(ConfigHandlerTest, UnhandledTagsAndTaglessKeypathsAreFatal) {
  EXPECT_FATAL(Deliver(Kp(Rule(7, "/rule/action/next-hop")), MOP_CREATED),
               "backtrace\n.*fault severity=1 func=PbrGlobalHandler file=config_handler.cpp "
               "line=328 message=\\[Received MOP_VALUE_SET with unhandled tag = '1889650088'\\]");
  confd_hkeypath_t high = Kp(Rule(7, "/rule"));
  high.v[0][0] = build::Tag(0x80000000u);
  EXPECT_FATAL(Deliver(high, MOP_DELETED), "unhandled tag = '-2147483648'");
  EXPECT_FATAL(Deliver(build::Keypath({}), MOP_CREATED),
               "backtrace\n.*fault severity=1 func=GetXmlTagFromKeypath file=config_handler.cpp "
               "line=191 message=\\[Error getting XML tag from keypath.\\]");
  EXPECT_FATAL(Deliver(build::Keypath({U32(1), U32(2)}), MOP_CREATED), "line=191");
}

TEST_F(ConfigHandlerTest, KeyPositionsAreCheckedWithTheirExpressionText) {
  EXPECT_DEATH(Deliver(Kp("/router/pbr{x7}"), MOP_CREATED),
               "confd_iter_ret pbr::ConfigHandler::PbrGlobalHandler\\(confd_hkeypath_t\\*, "
               "confd_iter_op, confd_value_t\\*, confd_value_t\\*\\): Assertion "
               "`\\(&kp->v\\[0\\]\\[0\\]\\)->type == C_UINT32' failed");
  EXPECT_DEATH(Deliver(Kp(Rule(7, "/id")), MOP_VALUE_SET, build::Buf("7")),
               "`\\(value\\)->type == C_UINT32' failed");
}

TEST_F(ConfigHandlerTest, ACommitSendsEachChangedRuleWholeThenTheDeletedIdsInAscendingOrder) {
  fake::PlayCommit(handler, NewRule(5, 1, "10.0.0.5"));
  fake::PlayCommit(handler, NewRule(4, 2, "10.0.0.4"));
  client.calls.clear();
  std::vector<Change> commit = NewRule(9, 1, "10.0.0.9");
  for (Change& c : NewRule(3, 1, "10.0.0.3")) commit.push_back(c);
  commit.push_back(Op(MOP_DELETED, Rule(5)));
  // A description change sends the whole rule, without the description.
  commit.push_back(Op(MOP_MODIFIED, Rule(4)));
  commit.push_back(Set(Rule(4, "/rule/description"), build::Buf("new")));
  fake::PlayCommit(handler, commit);
  EXPECT_THAT(client.Summary(), ElementsAre("set 3", "set 4", "set 9", "delete 5"));
  EXPECT_EQ(client.calls[1].entry, EntryBuilder(4).Priority(2).Via("10.0.0.4").Build());
}

TEST_F(ConfigHandlerTest, ARuleDeletedInTheCommitSkipsItsChildren) {
  fake::PlayCommit(handler, NewRule(6, 2, "10.0.0.6"));
  client.calls.clear();
  auto results = fake::PlayCommit(
      handler, {Op(MOP_DELETED, Rule(6)), Op(MOP_DELETED, Rule(6, "/rule/action/next-hop/ip"))});
  EXPECT_THAT(results, ElementsAre(ITER_CONTINUE));
  EXPECT_THAT(client.Summary(), ElementsAre("delete 6"));
  EXPECT_THAT(cache.configs, IsEmpty());
}

TEST_F(ConfigHandlerTest, EdgeCommitsSendWhatTheIdSetsHold) {
  // An id in both sets is sent, recreated empty by the commit's lookup, then deleted.
  fake::PlayCommit(handler, {Set(Rule(8, "/rule/action/next-hop/ip"), Ipv4("10.0.0.8")),
                             Op(MOP_DELETED, Rule(8))});
  EXPECT_THAT(client.Summary(), ElementsAre("set 8", "delete 8"));
  EXPECT_EQ(client.calls[0].entry, Entry{});
  client.calls.clear();

  // Applying twice without starting sends the same calls again.
  fake::PlayCommit(handler, {Set(Rule(2, "/rule/action/next-hop/ip"), Ipv4("10.0.0.2")),
                             Op(MOP_DELETED, Rule(1))});
  handler.ApplyCommitConfig();
  EXPECT_THAT(client.Summary(), ElementsAre("set 2", "delete 1", "set 2", "delete 1"));
  client.calls.clear();

  // Rule ids reach the manager as their low sixteen bits.
  fake::PlayCommit(handler, {Set(Rule(65536 + 3, "/rule/action/next-hop/ip"), Ipv4("10.0.0.3")),
                             Op(MOP_DELETED, Rule(65536 + 4))});
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
