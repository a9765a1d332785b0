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

// The layouts as `ip` would describe them: rules, then the next hop's route (if any), or the error.
std::string Text(const Entry& entry) {
  const RuleLayout layout = LayOut(1, entry, Names);
  std::string text = layout.error;
  for (const FibRule& rule : layout.rules) text += Describe(rule) + "; ";
  if (layout.route) text += Describe(*layout.route);
  return text;
}

TEST(RuleLayoutTest, EveryRuleIsLaidOutAheadOfMainInTheTableOfItsNextHop) {
  // 10.0.2.2 read as a number: 10 << 24 | 2 << 8 | 2; 0.0.0.1 would be the kernel's main table.
  const std::string t = "167772674";
  const std::pair<Entry, std::string> cases[] = {
      {EntryBuilder(1).Priority(10).From("10.1.0.0/16").Via("10.0.2.2").Build(),
       "pref 11 from 10.1.0.0/16 lookup " + t + "; default via 10.0.2.2 table " + t + " metric " +
           t},
      {EntryBuilder(1).Priority(5).To("192.168.2.1").Build(),
       "pref 6 to 192.168.2.1/32 lookup 254; "},
      // Host bits are cleared so that deletions match; length 0 matches everything.
      {EntryBuilder(1).From("10.1.2.3/16").To("172.16.5.9/12").Build(),
       "pref 1 from 10.1.0.0/16 to 172.16.0.0/12 lookup 254; "},
      {EntryBuilder(1).Priority(32764).From("10.1.2.3/0").Build(), "pref 32765 lookup 254; "},
      // Priorities beyond the kernel's range share its last one; one rule per ingress interface.
      {EntryBuilder(1).Priority(UINT32_MAX).Iif(2).Iif(1).Iif(2).Build(),
       "pref 32765 iif eth1 lookup 254; pref 32765 iif eth2 lookup 254; "},
      {EntryBuilder(1).From("10.0.0.0/255.0.255.0").Build(),
       "source mask 255.0.255.0 is not a prefix mask"},
      {EntryBuilder(1).Iif(99).Build(), "unknown ingress interface id 99"},
      {EntryBuilder(1).Iif(3).Build(),
       "invalid ingress interface name '" + std::string(IFNAMSIZ, 'x') + "'"},
      {EntryBuilder(1).Via("0.0.0.0").Build(), "next hop 0.0.0.0 is not a gateway"},
      {EntryBuilder(1).Via("0.0.0.254").Build(), "next hop 0.0.0.254 is not a gateway"},
  };
  // An error leaves nothing to install.
  for (const auto& [entry, expected] : cases) EXPECT_EQ(Text(entry), expected);
  EXPECT_EQ(LayOut(1, EntryBuilder(1).From("10.1.2.3/0").Build(), Names).rules.at(0).src, Prefix{});
}

TEST(RuleLayoutTest, RulesWithOneNextHopShareItsTableAndOnlyThatRouteShapeIsOurs) {
  auto a = LayOut(1, EntryBuilder(1).From("10.1.0.0/16").Via("192.168.7.1").Build(), Names);
  auto b = LayOut(2, EntryBuilder(2).To("10.2.0.0/16").Via("192.168.7.1").Build(), Names);
  auto c = LayOut(3, EntryBuilder(3).To("10.2.0.0/16").Via("192.168.7.2").Build(), Names);
  ASSERT_TRUE(a.route && b.route && c.route);
  EXPECT_EQ(*a.route, *b.route);
  EXPECT_EQ(a.rules[0].table, b.rules[0].table);
  EXPECT_EQ(a.rules[0].table, TableOf(Ip("192.168.7.1").s_addr));
  EXPECT_NE(a.rules[0].table, c.rules[0].table);
  EXPECT_NE(a.route->metric, c.route->metric);
  EXPECT_TRUE(IsNextHopRoute(*a.route));
  EXPECT_FALSE(IsNextHopRoute(DefaultRoute{100007, a.route->gateway, a.route->metric}));
  EXPECT_FALSE(IsNextHopRoute(DefaultRoute{a.route->table, a.route->gateway, 7}));
}

}  // namespace
}  // namespace pbr::element
