// The kernel backend through pbr::PbrClient, in a routed test network of namespaces: rules steer
// real pings, and the kernel's rules and routes are read back with `ip -j`.
#include "element/kernel/kernel_client.h"

#include "element/pbr/rule_reasons.h"

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <vector>

#include "tests/element/kernel/backend_fixture.h"
#include "tests/support/entry_builder.h"

namespace pbr::element {
namespace {

using namespace std::chrono_literals;
using pbrtest::EntryBuilder;

// Interface ids of the test: 1 ra, 2 rb1, 3 rb2, 5 eth5 (absent until a test makes it); others
// unknown.
std::optional<std::string> Names(limid_t id) {
  static const std::map<uint32_t, std::string> names = {
      {1, "ra"}, {2, "rb1"}, {3, "rb2"}, {5, "eth5"}};
  auto it = names.find(id.value);
  if (it == names.end()) return std::nullopt;
  return it->second;
}

// The table of a next hop, as a number and as `ip rule` prints it.
uint32_t Table(const std::string& next_hop) {
  return TableOf(pbrtest::Ip(next_hop).s_addr);
}
std::string Lookup(const std::string& next_hop) {
  return " lookup " + std::to_string(Table(next_hop));
}

class KernelClientTest : public pbrtest::BackendTest {
 protected:
  KernelClientTest() : BackendTest("kernel=10") {}

  KernelClient& Start(std::chrono::milliseconds grace = 60s) {
    return Use(std::make_unique<KernelClient>(mw_, vqmw_trace_register_category("kernel"),
                                              KernelClient::Options{Names, grace}));
  }

  static std::string Reason(uint16_t id) { return std::string(RuleReasons::Instance().Reason(id)); }

  // Our rules as `ip rule` prints them, in list order: "11 from 10.1.0.0/16 iif ra lookup T";
  // without the local traffic guard unless asked.
  std::vector<std::string> RuleTexts(bool guard = false) {
    std::vector<std::string> out;
    for (auto& r : bed_->Rules(kRouteProtocol)) {
      if (!guard && r["priority"] == 0) continue;
      std::string text = std::to_string(r["priority"].get<int>());
      if (r.contains("src") && r["src"] != "all") {
        text += " from " + r["src"].get<std::string>();
        if (r.contains("srclen")) text += "/" + std::to_string(r["srclen"].get<int>());
      }
      if (r.contains("dst")) {
        text += " to " + r["dst"].get<std::string>();
        if (r.contains("dstlen")) text += "/" + std::to_string(r["dstlen"].get<int>());
      }
      if (r.contains("iif")) text += " iif " + r["iif"].get<std::string>();
      text += " lookup " + r["table"].get<std::string>();
      out.push_back(text);
    }
    return out;
  }

  // The gateways of the default routes in the table of `next_hop`.
  std::vector<std::string> Gateways(const std::string& next_hop) {
    std::vector<std::string> out;
    for (auto& r : bed_->Routes(Table(next_hop)))
      if (r["dst"] == "default") out.push_back(r["gateway"].get<std::string>());
    return out;
  }
};

Entry SteerToB2(uint16_t id = 7) {
  return EntryBuilder(id).Priority(10).From("10.1.2.3/16").Iif(1).Via("10.0.2.2").Build();
}

TEST_F(KernelClientTest, CommittedRulesSteerTrafficAndDeletionReturnsItToMain) {
  KernelClient& client = Start();
  EXPECT_EQ(bed_->PingPath(), "rb1");

  EXPECT_EQ(client.SetEntry(7, SteerToB2()), PBR_OK);
  EXPECT_EQ(Status(7), kNoReport) << "no report from inside SetEntry";
  ASSERT_TRUE(AwaitStatus(7, 1));
  EXPECT_EQ(RuleTexts(),
            std::vector<std::string>{"11 from 10.1.0.0/16 iif ra" + Lookup("10.0.2.2")});
  EXPECT_EQ(Gateways("10.0.2.2"), std::vector<std::string>{"10.0.2.2"});
  EXPECT_EQ(bed_->PingPath(), "rb2");

  // A rule without next hop looks up main; ahead of rule 7 it exempts 10.9.9.9 from it.
  client.SetEntry(3, EntryBuilder(3).Priority(5).To("10.9.9.9").Build());
  ASSERT_TRUE(Settle());
  EXPECT_EQ(Status(3), 1u);
  EXPECT_EQ(RuleTexts(),
            (std::vector<std::string>{"6 to 10.9.9.9 lookup main",
                                      "11 from 10.1.0.0/16 iif ra" + Lookup("10.0.2.2")}));
  EXPECT_EQ(bed_->PingPath(), "rb1");

  client.DeleteEntry(3);
  ASSERT_TRUE(AwaitStatus(3, 0));
  EXPECT_EQ(bed_->PingPath(), "rb2");
  client.DeleteEntry(7);
  ASSERT_TRUE(AwaitStatus(7, 0));
  EXPECT_TRUE(RuleTexts().empty());
  EXPECT_TRUE(Gateways("10.0.2.2").empty());
  EXPECT_EQ(bed_->PingPath(), "rb1");
}

TEST_F(KernelClientTest, ChangedSelectorAndNextHopMoveTrafficWithoutLoss) {
  KernelClient& client = Start();
  client.SetEntry(7, SteerToB2());
  ASSERT_TRUE(AwaitStatus(7, 1));

  uint64_t b1 = bed_->TxPackets("rb1");
  pbrtest::BackgroundPing ping(*bed_, 200, 10);
  uint64_t b2 = bed_->TxPackets("rb2");
  ASSERT_TRUE(RunUntil([&] { return bed_->TxPackets("rb2") >= b2 + 20; }, 5s, 20ms));
  // Narrower source and a destination: same traffic, a new kernel rule added before the old goes.
  client.SetEntry(7, EntryBuilder(7)
                         .Priority(10)
                         .From("10.1.0.0/24")
                         .To("10.9.9.0/24")
                         .Iif(1)
                         .Via("10.0.2.2")
                         .Build());
  ASSERT_TRUE(Settle());
  EXPECT_EQ(RuleTexts(), std::vector<std::string>{"11 from 10.1.0.0/24 to 10.9.9.0/24 iif ra" +
                                                  Lookup("10.0.2.2")});
  b2 = bed_->TxPackets("rb2");
  ASSERT_TRUE(RunUntil([&] { return bed_->TxPackets("rb2") >= b2 + 20; }, 5s, 20ms))
      << "traffic left the next hop";

  client.SetEntry(7,
                  EntryBuilder(7).Priority(10).From("10.1.0.0/16").Iif(1).Via("10.0.1.2").Build());
  ASSERT_TRUE(Settle());
  auto [sent, received] = ping.Wait();
  EXPECT_EQ(received, sent);
  EXPECT_GE(bed_->TxPackets("rb1") - b1, 20u) << "traffic did not move to the new next hop";
  EXPECT_EQ(RuleTexts(),
            std::vector<std::string>{"11 from 10.1.0.0/16 iif ra" + Lookup("10.0.1.2")});
  EXPECT_EQ(Gateways("10.0.1.2"), std::vector<std::string>{"10.0.1.2"});
  EXPECT_TRUE(Gateways("10.0.2.2").empty()) << "the unused next hop's route stays behind";
  EXPECT_EQ(Status(7), 1u);
}

TEST_F(KernelClientTest, RestartKeepsForwardingAndRemovesWhatIsNoLongerConfigured) {
  KernelClient& first = Start();
  first.SetEntry(7, SteerToB2());
  first.SetEntry(8, EntryBuilder(8).Priority(20).From("10.2.0.0/16").Via("10.0.1.2").Build());
  first.SetEntry(9, EntryBuilder(9).Priority(30).To("10.3.0.0/16").Build());
  ASSERT_TRUE(Settle());
  ASSERT_EQ(RuleTexts().size(), 3u);

  pbrtest::BackgroundPing ping(*bed_, 100, 10);
  uint64_t b2 = bed_->TxPackets("rb2");
  ASSERT_TRUE(RunUntil([&] { return bed_->TxPackets("rb2") >= b2 + 20; }, 5s, 20ms));
  KernelClient& second = Start();  // the old client goes: a restarted process
  second.SetEntry(7, SteerToB2());
  ASSERT_TRUE(Settle());
  auto [sent, received] = ping.Wait();
  EXPECT_EQ(received, sent);
  EXPECT_EQ(RuleTexts(),
            std::vector<std::string>{"11 from 10.1.0.0/16 iif ra" + Lookup("10.0.2.2")});
  EXPECT_EQ(Gateways("10.0.2.2"), std::vector<std::string>{"10.0.2.2"});
  EXPECT_TRUE(Gateways("10.0.1.2").empty());
  EXPECT_EQ(Status(7), 1u);
}

TEST_F(KernelClientTest, LeftoversGoAfterTheGracePeriodWithoutConfigurationForeignOnesStay) {
  // A leftover of ours and a foreign rule that differs only in its protocol.
  const std::string table = " table " + std::to_string(Table("10.0.2.2"));
  ASSERT_EQ(bed_->Ip("r", "rule add pref 11 from 10.1.0.0/16" + table + " proto 77"), 0);
  ASSERT_EQ(bed_->Ip("r", "rule add pref 11 from 10.1.0.0/16" + table + " proto static"), 0);
  ASSERT_EQ(
      bed_->Ip("r", "route add default via 10.0.2.2" + table + " metric " +
                        std::to_string(MetricOf(pbrtest::Ip("10.0.2.2").s_addr)) + " proto 77"),
      0);
  ASSERT_EQ(bed_->Ip("r", "route add 10.5.0.0/16 via 10.0.2.2" + table + " proto static"), 0);
  // A rule and route of the earlier layout, a table per rule.
  ASSERT_EQ(bed_->Ip("r", "rule add pref 11 from 10.1.0.0/16 table 1000007 proto 77"), 0);
  ASSERT_EQ(bed_->Ip("r", "route add default via 10.0.2.2 table 1000007 metric 7 proto 77"), 0);
  Start(200ms);
  ASSERT_TRUE(
      RunUntil([&] { return RuleTexts().empty() && Gateways("10.0.2.2").empty(); }, 5s, 50ms));
  EXPECT_EQ(bed_->IpJson("r", "rule show pref 11").size(), 1u) << "the foreign rule is gone";
  EXPECT_EQ(bed_->Routes(Table("10.0.2.2")).size(), 1u) << "the foreign route is gone";
  EXPECT_TRUE(RunUntil([&] { return bed_->Routes(1000007).empty(); }, 5s, 50ms))
      << "the earlier layout's route stays";
}

TEST_F(KernelClientTest, RulesOnAnAbsentInterfaceAreAdoptedSweptAndActivateWhenItAppears) {
  auto on_eth5 = [](uint16_t id) {
    return EntryBuilder(id).Priority(id + 3).From("10.1.0.0/16").Iif(5).Via("10.0.2.2").Build();
  };
  KernelClient& first = Start();
  first.SetEntry(7, on_eth5(7));
  first.SetEntry(8, on_eth5(8));
  ASSERT_TRUE(AwaitStatus(7, 2));
  EXPECT_EQ(Reason(7), "ingress interface absent: eth5");
  ASSERT_EQ(RuleTexts().size(), 2u);

  // Restarted with rule 7 only: 7 is adopted, not duplicated; 8 is swept.
  KernelClient& second = Start();
  second.SetEntry(7, on_eth5(7));
  ASSERT_TRUE(RunUntil([&] { return second.Settled() && RuleTexts().size() == 1; }));
  EXPECT_EQ(RuleTexts(),
            std::vector<std::string>{"11 from 10.1.0.0/16 iif eth5" + Lookup("10.0.2.2")});

  ASSERT_EQ(bed_->Ip("r", "link add eth5 type veth peer name eth5p"), 0);
  ASSERT_EQ(bed_->Ip("r", "link set eth5 up"), 0);
  ASSERT_TRUE(AwaitStatus(7, 1));
  EXPECT_EQ(Reason(7), "");
  ASSERT_EQ(bed_->Ip("r", "link del eth5"), 0);
  ASSERT_TRUE(AwaitStatus(7, 2));
  second.DeleteEntry(7);
  ASSERT_TRUE(AwaitStatus(7, 0));
  EXPECT_TRUE(RuleTexts(true).empty());
}

TEST_F(KernelClientTest, TheRoutersOwnTrafficStaysOnTheMainTable) {
  KernelClient& client = Start();
  client.SetEntry(7, EntryBuilder(7).Priority(10).To("10.9.9.9").Via("10.0.2.2").Build());
  ASSERT_TRUE(AwaitStatus(7, 1));
  EXPECT_EQ(bed_->PingPath(), "rb2") << "forwarded traffic follows the rule";
  auto local = bed_->IpJson("r", "route get 10.9.9.9");
  ASSERT_EQ(local.size(), 1u);
  EXPECT_EQ(local[0]["dev"], "rb1") << "the router's own traffic follows the rule";
  client.DeleteEntry(7);
  ASSERT_TRUE(AwaitStatus(7, 0));
  ASSERT_TRUE(Settle());
  EXPECT_TRUE(RuleTexts(true).empty()) << "the guard stays without rules";
}

TEST_F(KernelClientTest, ANextHopThatIsTheRoutersOwnAddressFails) {
  KernelClient& client = Start();
  client.SetEntry(7, EntryBuilder(7).Priority(10).From("10.1.0.0/16").Via("10.0.2.1").Build());
  ASSERT_TRUE(AwaitStatus(7, 2));
  EXPECT_EQ(Reason(7), "next hop is a local address");
  EXPECT_TRUE(Gateways("10.0.2.1").empty());
  EXPECT_EQ(bed_->PingPath(), "rb1");
  // Once the address moves away, the next hop is b2's.
  ASSERT_EQ(bed_->Ip("r", "addr del 10.0.2.1/24 dev rb2"), 0);
  ASSERT_EQ(bed_->Ip("r", "addr add 10.0.2.3/24 dev rb2"), 0);
  ASSERT_EQ(bed_->Ip("b2", "addr add 10.0.2.1/24 dev b2r"), 0);
  ASSERT_TRUE(AwaitStatus(7, 1));
}

TEST_F(KernelClientTest, DeletingARuleWithoutIngressInterfaceLeavesAnEqualOneWithIt) {
  KernelClient& client = Start();
  client.SetEntry(3, EntryBuilder(3).Priority(5).To("10.9.9.9").Iif(1).Build());
  client.SetEntry(4, EntryBuilder(4).Priority(5).To("10.9.9.9").Build());
  ASSERT_TRUE(Settle());
  client.DeleteEntry(4);
  ASSERT_TRUE(AwaitStatus(4, 0));
  ASSERT_TRUE(Settle());
  EXPECT_EQ(RuleTexts(), std::vector<std::string>{"6 to 10.9.9.9 iif ra lookup main"});
  EXPECT_EQ(Status(3), 1u);
}

TEST_F(KernelClientTest, EqualPrioritiesAreOrderedByIdWhateverTheArrivalOrder) {
  KernelClient& client = Start();
  // The destination tells the rules apart in the kernel's list.
  auto rule = [](uint16_t id, uint32_t priority) {
    return EntryBuilder(id)
        .Priority(priority)
        .To("10.7." + std::to_string(id) + ".0/24")
        .Via("10.0.2.2")
        .Build();
  };
  client.SetEntry(5, rule(5, 10));
  client.SetEntry(3, rule(3, 10));
  ASSERT_TRUE(Settle());
  client.SetEntry(4, rule(4, 10));
  client.SetEntry(1, rule(1, 40000));  // beyond the kernel's range: shares the last priority
  client.SetEntry(2, rule(2, 32764));
  ASSERT_TRUE(Settle());
  const std::string via = Lookup("10.0.2.2");
  EXPECT_EQ(RuleTexts(),
            (std::vector<std::string>{"11 to 10.7.3.0/24" + via, "11 to 10.7.4.0/24" + via,
                                      "11 to 10.7.5.0/24" + via, "32765 to 10.7.2.0/24" + via,
                                      "32765 to 10.7.1.0/24" + via}));
  // Moving rule 5 ahead of 3 reorders the kernel's list too.
  client.SetEntry(5, rule(5, 9));
  client.SetEntry(3, rule(3, 11));
  ASSERT_TRUE(Settle());
  EXPECT_EQ(RuleTexts()[0], "10 to 10.7.5.0/24" + via);
  EXPECT_EQ(RuleTexts()[1], "11 to 10.7.4.0/24" + via);
  EXPECT_EQ(RuleTexts()[2], "12 to 10.7.3.0/24" + via);
}

TEST_F(KernelClientTest, ALostNextHopFailsEveryRuleUsingItsRouteUntilItRecovers) {
  KernelClient& client = Start();
  client.SetEntry(7, SteerToB2());
  client.SetEntry(8, EntryBuilder(8).Priority(20).To("10.8.0.0/16").Via("10.0.2.2").Build());
  ASSERT_TRUE(RunUntil([&] { return Status(7) == 1 && Status(8) == 1; }));
  EXPECT_EQ(Gateways("10.0.2.2"), std::vector<std::string>{"10.0.2.2"});
  const auto both = [&](uint32_t status) {
    return RunUntil([&] { return Status(7) == status && Status(8) == status; });
  };

  // Carrier loss: the far end goes down.
  ASSERT_EQ(bed_->Ip("b2", "link set b2r down"), 0);
  ASSERT_TRUE(both(2));
  EXPECT_EQ(bed_->PingPath(), "rb1") << "traffic should fall back to the main table";
  ASSERT_EQ(bed_->Ip("b2", "link set b2r up"), 0);
  ASSERT_EQ(bed_->Ip("b2", "route replace default via 10.0.2.1"), 0);  // b2's own, lost when down
  ASSERT_TRUE(both(1));
  EXPECT_EQ(bed_->PingPath(), "rb2");

  // Administrative down and address removal: the kernel drops the route silently.
  ASSERT_EQ(bed_->Ip("r", "link set rb2 down"), 0);
  ASSERT_TRUE(both(2));
  ASSERT_EQ(bed_->Ip("r", "link set rb2 up"), 0);
  ASSERT_TRUE(both(1));
  ASSERT_EQ(bed_->Ip("r", "addr del 10.0.2.1/24 dev rb2"), 0);
  ASSERT_TRUE(both(2));
  ASSERT_EQ(bed_->Ip("r", "addr add 10.0.2.1/24 dev rb2"), 0);
  ASSERT_TRUE(both(1));
  EXPECT_EQ(Gateways("10.0.2.2"), std::vector<std::string>{"10.0.2.2"});
  EXPECT_EQ(bed_->PingPath(), "rb2");

  // The route stays until the last rule using it goes.
  client.DeleteEntry(7);
  ASSERT_TRUE(AwaitStatus(7, 0));
  EXPECT_EQ(Gateways("10.0.2.2"), std::vector<std::string>{"10.0.2.2"}) << "rule 8 still uses it";
  EXPECT_EQ(Status(8), 1u);
  EXPECT_EQ(bed_->PingPath(), "rb1");
  client.DeleteEntry(8);
  ASSERT_TRUE(AwaitStatus(8, 0));
  ASSERT_TRUE(Settle());
  EXPECT_TRUE(Gateways("10.0.2.2").empty());
  EXPECT_TRUE(RuleTexts().empty());
}

TEST_F(KernelClientTest, UnreachableNextHopFailsUntilItsSubnetAppears) {
  KernelClient& client = Start();
  client.SetEntry(7, EntryBuilder(7).Priority(10).From("10.1.0.0/16").Via("10.0.3.2").Build());
  ASSERT_TRUE(AwaitStatus(7, 2));
  EXPECT_EQ(Reason(7), "next hop has no address on a connected subnet");
  EXPECT_TRUE(Gateways("10.0.3.2").empty());
  EXPECT_EQ(RuleTexts().size(), 1u) << "the rule stays; its empty table falls through to main";
  EXPECT_EQ(bed_->PingPath(), "rb1");

  // Give b2 an address on the next hop's subnet and r a route to it.
  ASSERT_EQ(bed_->Ip("b2", "addr add 10.0.3.2/24 dev b2r"), 0);
  ASSERT_EQ(bed_->Ip("r", "addr add 10.0.3.1/24 dev rb2"), 0);
  ASSERT_TRUE(AwaitStatus(7, 1));
  EXPECT_EQ(Gateways("10.0.3.2"), std::vector<std::string>{"10.0.3.2"});
  EXPECT_EQ(bed_->PingPath(), "rb2");
}

TEST_F(KernelClientTest, InvalidRulesFailAndLeaveNothingBehind) {
  KernelClient& client = Start();
  client.SetEntry(7, SteerToB2());
  ASSERT_TRUE(AwaitStatus(7, 1));
  EXPECT_EQ(client.SetEntry(7, EntryBuilder(7).Iif(42).Via("10.0.2.2").Build()), PBR_ERR_INVALID);
  EXPECT_EQ(client.SetEntry(8, EntryBuilder(8).From("10.0.0.0/255.0.255.0").Build()),
            PBR_ERR_INVALID);
  ASSERT_TRUE(Settle());
  EXPECT_EQ(Status(7), 2u);
  EXPECT_EQ(Status(8), 2u);
  EXPECT_TRUE(RuleTexts().empty());
  EXPECT_TRUE(Gateways("10.0.2.2").empty());
  // A refused next hop (a multicast address) fails without harming other rules.
  client.SetEntry(9, EntryBuilder(9).From("10.4.0.0/16").Via("224.0.0.1").Build());
  client.SetEntry(7, SteerToB2());
  ASSERT_TRUE(Settle());
  EXPECT_EQ(Status(9), 2u);
  EXPECT_EQ(Status(7), 1u);
}

TEST_F(KernelClientTest, ObjectsRemovedBehindItsBackAreReinstalled) {
  KernelClient& client = Start();
  client.SetEntry(7, SteerToB2());
  ASSERT_TRUE(AwaitStatus(7, 1));
  ASSERT_EQ(
      bed_->Ip("r", "rule del pref 11 from 10.1.0.0/16 iif ra" + Lookup("10.0.2.2") + " proto 77"),
      0);
  ASSERT_TRUE(RunUntil([&] { return RuleTexts().size() == 1; }, 5s, 20ms));
  ASSERT_EQ(bed_->Ip("r", "route del default table " + std::to_string(Table("10.0.2.2"))), 0);
  ASSERT_TRUE(RunUntil([&] { return Gateways("10.0.2.2").size() == 1; }, 5s, 20ms));
  ASSERT_TRUE(Settle());
  EXPECT_EQ(Status(7), 1u);
  EXPECT_EQ(bed_->PingPath(), "rb2");
}

}  // namespace
}  // namespace pbr::element
