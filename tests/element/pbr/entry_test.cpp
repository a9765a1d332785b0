// The rule model: owned matches and actions, deep copies, absent kinds and transport form.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "element/pbr/match.pb.h"
#include "platform/pbr_model.h"

namespace pbr {
namespace {

using ::testing::ElementsAre;

in_addr Addr(const char* text) {
  in_addr a{};
  inet_pton(AF_INET, text, &a);
  return a;
}

std::vector<std::string> destroyed;

struct TracedSource : MatchSrcIPv4 {
  using MatchSrcIPv4::MatchSrcIPv4;
  ~TracedSource() override { destroyed.push_back("match"); }
};
struct TracedNextHop : ActionL3NextHop {
  using ActionL3NextHop::ActionL3NextHop;
  ~TracedNextHop() override { destroyed.push_back("action"); }
};

TEST(Entry, OneMatchPerKindThatCanBeReplacedReadAndDeleted) {
  Entry entry;
  // Reading an absent kind leaves the argument as it was.
  MatchSrcIPv4 source(Addr("1.2.3.4"), Addr("255.0.0.0"));
  EXPECT_EQ(entry.getMatch(source), PBR_ERR_NOT_FOUND);
  EXPECT_EQ(source.getIPv4().s_addr, Addr("1.2.3.4").s_addr);
  ActionL3NextHop nextHop(Addr("9.9.9.9"));
  EXPECT_EQ(entry.getAction(nextHop), PBR_ERR_NOT_FOUND);
  EXPECT_EQ(nextHop.getL3NextHop().s_addr, Addr("9.9.9.9").s_addr);

  entry.setMatch(MatchSrcIPv4(Addr("1.1.1.1"), Addr("255.255.255.255")));
  entry.setMatch(MatchDstIPv4(Addr("10.0.0.0"), Addr("255.0.0.0")));
  entry.setMatch(MatchDstIPv4(Addr("10.1.0.0"), Addr("255.255.0.0")));
  entry.setAction(ActionL3NextHop(Addr("3.3.3.3")));
  EXPECT_EQ(entry.matches().size(), 2u);
  MatchDstIPv4 out(in_addr{}, in_addr{});
  EXPECT_EQ(entry.getMatch(out), PBR_OK);
  EXPECT_EQ(out.getIPv4().s_addr, Addr("10.1.0.0").s_addr);
  EXPECT_EQ(out.getIPv4Mask().s_addr, Addr("255.255.0.0").s_addr);

  EXPECT_EQ(entry.deleteMatch(MATCH_SRC_IPV4), PBR_OK);
  EXPECT_EQ(entry.deleteMatch(MATCH_SRC_IPV4), PBR_ERR_NOT_FOUND);
  EXPECT_EQ(entry.deleteAction(ACTION_L3_NEXT_HOP), PBR_OK);
  EXPECT_EQ(entry.matches().size(), 1u);
  EXPECT_TRUE(entry.actions().empty());
}

TEST(Entry, CopiesAreDeepAndOutliveTheirSource) {
  auto source = std::make_unique<Entry>();
  source->setId(7);
  source->setPriority(3);
  source->setMatch(MatchIngressPorts({limid_t{1}, limid_t{2}}));
  source->setMatch(MatchSrcIPv4(Addr("10.1.0.0"), Addr("255.255.0.0")));
  source->setAction(ActionL3NextHop(Addr("10.0.0.1")));
  Entry copy(*source);
  EXPECT_EQ(copy, *source);
  source->deleteMatch(MATCH_INGRESS_PORTS);
  EXPECT_FALSE(copy == *source);
  source.reset();

  MatchIngressPorts ports({});
  ASSERT_EQ(copy.getMatch(ports), PBR_OK);
  EXPECT_THAT(ports.getPorts(), ElementsAre(limid_t{1}, limid_t{2}));
  ActionL3NextHop nextHop(in_addr{});
  ASSERT_EQ(copy.getAction(nextHop), PBR_OK);
  EXPECT_EQ(nextHop.getL3NextHop().s_addr, Addr("10.0.0.1").s_addr);

  Entry assigned;
  assigned = copy;
  EXPECT_EQ(assigned, copy);
}

TEST(Entry, DestroysActionsBeforeMatchesThroughTheirVirtualDestructors) {
  destroyed.clear();
  {
    Entry entry;
    entry.setMatch(TracedSource(Addr("1.1.1.1"), Addr("255.255.255.255")));
    entry.setAction(TracedNextHop(Addr("3.3.3.3")));
    destroyed.clear();  // the temporaries above
  }
  EXPECT_THAT(destroyed, ElementsAre("action", "match"));
}

TEST(Entry, MatchesRoundTripThroughTheirTransportForm) {
  MatchPB pb;
  MatchSrcIPv4(Addr("10.1.2.3"), Addr("255.255.0.0")).ConvertToMatchPB(&pb);
  EXPECT_EQ(pb.type(), MATCH_SRC_IPV4);
  MatchSrcIPv4 source(in_addr{}, in_addr{});
  source.ConvertFromMatchPB(&pb);
  EXPECT_TRUE(source == MatchSrcIPv4(Addr("10.1.2.3"), Addr("255.255.0.0")));
  EXPECT_FALSE(source == MatchDstIPv4(Addr("10.1.2.3"), Addr("255.255.0.0")));

  MatchIngressPorts({limid_t{5}, limid_t{6}}).ConvertToMatchPB(&pb);
  MatchIngressPorts ports({});
  ports.ConvertFromMatchPB(&pb);
  EXPECT_THAT(ports.getPorts(), ElementsAre(limid_t{5}, limid_t{6}));
}

}  // namespace
}  // namespace pbr
