// How rules are laid out in policy routing: priorities, prefixes, tables and invalid input.
#include "element/kernel/rule_layout.h"

#include <gtest/gtest.h>
#include <net/if.h>

#include <map>

#include "tests/support/entry_builder.h"

namespace pbr::element {
namespace {

using pbrtest::EntryBuilder;
using pbrtest::Ip;

std::optional<std::string> Names(limid_t id) {
  static const std::map<uint32_t, std::string> names = {
      {1, "eth1"}, {2, "eth2"}, {3, std::string(IFNAMSIZ, 'x')}};
  auto it = names.find(id.value);
  if (it == names.end()) return std::nullopt;
  return it->second;
}

TEST(KernelPriorityTest, EveryRuleIsConsultedBeforeTheMainTable) {
  EXPECT_EQ(KernelPriority(0), 1u);
  EXPECT_EQ(KernelPriority(100), 101u);
  EXPECT_EQ(KernelPriority(32764), 32765u);
  EXPECT_EQ(KernelPriority(32765), 32765u);
  EXPECT_EQ(KernelPriority(UINT32_MAX), 32765u);
}

TEST(RuleLayoutTest, NextHopRuleLooksUpTheTableOfItsNextHop) {
  auto layout =
      LayOut(7, EntryBuilder(7).Priority(10).From("10.1.0.0/16").Via("10.0.2.2").Build(), Names);
  ASSERT_TRUE(layout.error.empty()) << layout.error;
  ASSERT_EQ(layout.rules.size(), 1u);
  // 10.0.2.2 read as a number: 10 << 24 | 2 << 8 | 2.
  EXPECT_EQ(Describe(layout.rules[0]), "pref 11 from 10.1.0.0/16 lookup 167772674");
  ASSERT_TRUE(layout.route);
  EXPECT_EQ(Describe(*layout.route), "default via 10.0.2.2 table 167772674 metric 167772674");
}

TEST(RuleLayoutTest, RulesWithOneNextHopShareItsTable) {
  auto a = LayOut(1, EntryBuilder(1).From("10.1.0.0/16").Via("192.168.7.1").Build(), Names);
  auto b = LayOut(2, EntryBuilder(2).To("10.2.0.0/16").Via("192.168.7.1").Build(), Names);
  auto c = LayOut(3, EntryBuilder(3).To("10.2.0.0/16").Via("192.168.7.2").Build(), Names);
  ASSERT_TRUE(a.route && b.route && c.route);
  EXPECT_EQ(*a.route, *b.route);
  EXPECT_EQ(a.rules[0].table, b.rules[0].table);
  EXPECT_NE(a.rules[0].table, c.rules[0].table);
  EXPECT_NE(a.route->metric, c.route->metric);
  EXPECT_TRUE(IsNextHopRoute(*a.route));
  // Only the exact shape is ours: another table or metric for the same gateway is foreign.
  EXPECT_FALSE(IsNextHopRoute(DefaultRoute{100007, a.route->gateway, a.route->metric}));
  EXPECT_FALSE(IsNextHopRoute(DefaultRoute{a.route->table, a.route->gateway, 7}));
}

TEST(RuleLayoutTest, RuleWithoutNextHopLooksUpMain) {
  auto layout = LayOut(3, EntryBuilder(3).Priority(5).To("192.168.2.1").Build(), Names);
  ASSERT_EQ(layout.rules.size(), 1u);
  EXPECT_EQ(Describe(layout.rules[0]), "pref 6 to 192.168.2.1/32 lookup 254");
  EXPECT_FALSE(layout.route);
}

TEST(RuleLayoutTest, HostBitsAreClearedSoDeletesMatch) {
  auto layout = LayOut(
      1, EntryBuilder(1).From("10.1.2.3/16").To("172.16.5.9/12").Via("10.0.0.1").Build(), Names);
  ASSERT_EQ(layout.rules.size(), 1u);
  EXPECT_EQ(layout.rules[0].src, (Prefix{Ip("10.1.0.0").s_addr, 16}));
  EXPECT_EQ(layout.rules[0].dst, (Prefix{Ip("172.16.0.0").s_addr, 12}));
}

TEST(RuleLayoutTest, ZeroLengthPrefixMatchesEverything) {
  auto layout = LayOut(1, EntryBuilder(1).From("10.1.2.3/0").Build(), Names);
  ASSERT_EQ(layout.rules.size(), 1u);
  EXPECT_EQ(layout.rules[0].src, Prefix{});
}

TEST(RuleLayoutTest, OneRulePerIngressInterface) {
  auto layout = LayOut(
      9, EntryBuilder(9).Iif(2).Iif(1).Iif(2).From("10.0.0.0/8").Via("10.0.0.1").Build(), Names);
  ASSERT_TRUE(layout.error.empty()) << layout.error;
  ASSERT_EQ(layout.rules.size(), 2u);
  EXPECT_EQ(layout.rules[0].iif, "eth1");
  EXPECT_EQ(layout.rules[1].iif, "eth2");
  EXPECT_EQ(layout.rules[0].table, TableOf(Ip("10.0.0.1").s_addr));
}

TEST(RuleLayoutTest, InvalidInputIsRefusedWithAReason) {
  struct Case {
    const char* name;
    Entry entry;
    const char* error;
  };
  const Case cases[] = {
      {"non-prefix mask", EntryBuilder(1).From("10.0.0.0/255.0.255.0").Build(),
       "source mask 255.0.255.0 is not a prefix mask"},
      {"unknown interface", EntryBuilder(1).Iif(99).Build(), "unknown ingress interface id 99"},
      {"overlong interface name", EntryBuilder(1).Iif(3).Build(), "invalid ingress interface name"},
      {"next hop 0.0.0.0", EntryBuilder(1).Via("0.0.0.0").Build(),
       "next hop 0.0.0.0 is not a gateway"},
      // Its table would be the kernel's main table.
      {"next hop 0.0.0.254", EntryBuilder(1).Via("0.0.0.254").Build(),
       "next hop 0.0.0.254 is not a gateway"},
  };
  for (const auto& c : cases) {
    auto layout = LayOut(1, c.entry, Names);
    EXPECT_NE(layout.error.find(c.error), std::string::npos) << c.name << ": " << layout.error;
    EXPECT_TRUE(layout.rules.empty()) << c.name;
    EXPECT_FALSE(layout.route) << c.name;
  }
}

}  // namespace
}  // namespace pbr::element
