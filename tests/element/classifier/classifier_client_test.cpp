// The classifier backend in a routed test network of namespaces. Its forwarding decisions are
// compared with the kernel backend's on random rule sets: the attached program classifies each
// packet (run by the kernel on a built packet, as on one received on the interface), and the
// kernel's route lookup with that mark gives the next hop; for the kernel backend the lookup
// alone does. Real pings check steering, changes and a restart without loss.
#include "element/classifier/classifier_client.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/if_ether.h>
#include <linux/ip.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <unistd.h>
#include <algorithm>

#include <chrono>
#include <cstring>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <random>
#include <vector>

#include "element/kernel/kernel_client.h"
#include "platform/vqmw.h"
#include "tests/element/kernel/backend_fixture.h"
#include "tests/support/entry_builder.h"

namespace pbr::element {
namespace {

using namespace std::chrono_literals;
using pbrtest::EntryBuilder;
using pbrtest::Ip;

// Interface ids: 1 ra, 2 rb1, 3 rb2, 4 "late" (no such interface), 5 unknown.
std::optional<std::string> Names(limid_t id) {
  static const std::map<uint32_t, std::string> names = {
      {1, "ra"}, {2, "rb1"}, {3, "rb2"}, {4, "late"}};
  auto it = names.find(id.value);
  if (it == names.end()) return std::nullopt;
  return it->second;
}

// What r's routing decides for a packet received on `iif`: "via <gateway>", or the error.
std::string RouteGet(const std::string& iif, const std::string& src, const std::string& dst,
                     uint32_t mark) {
  mnl_socket* nl = mnl_socket_open(NETLINK_ROUTE);
  if (!nl || mnl_socket_bind(nl, 0, MNL_SOCKET_AUTOPID) < 0) return "no socket";
  char buf[8192];
  nlmsghdr* nlh = mnl_nlmsg_put_header(buf);
  nlh->nlmsg_type = RTM_GETROUTE;
  nlh->nlmsg_flags = NLM_F_REQUEST;
  auto* rtm = static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(rtmsg)));
  rtm->rtm_family = AF_INET;
  rtm->rtm_dst_len = rtm->rtm_src_len = 32;
  mnl_attr_put_u32(nlh, RTA_DST, Ip(dst).s_addr);
  mnl_attr_put_u32(nlh, RTA_SRC, Ip(src).s_addr);
  mnl_attr_put_u32(nlh, RTA_IIF, if_nametoindex(iif.c_str()));
  if (mark) mnl_attr_put_u32(nlh, RTA_MARK, mark);
  std::string result = "no answer";
  if (mnl_socket_sendto(nl, nlh, nlh->nlmsg_len) >= 0) {
    int n = static_cast<int>(mnl_socket_recvfrom(nl, buf, sizeof buf));
    const auto* reply = reinterpret_cast<const nlmsghdr*>(buf);
    if (n > 0 && reply->nlmsg_type == NLMSG_ERROR) {
      result = std::string("error ") +
               std::strerror(-static_cast<const nlmsgerr*>(mnl_nlmsg_get_payload(reply))->error);
    } else if (n > 0) {
      uint32_t found[RTA_MAX + 1] = {};
      mnl_attr_parse(
          reply, sizeof(rtmsg),
          [](const nlattr* attr, void* data) {
            if (mnl_attr_get_type(attr) <= RTA_MAX && mnl_attr_get_payload_len(attr) == 4)
              static_cast<uint32_t*>(data)[mnl_attr_get_type(attr)] = mnl_attr_get_u32(attr);
            return MNL_CB_OK;
          },
          found);
      result = "via " + AddressText(found[RTA_GATEWAY]);
    }
  }
  mnl_socket_close(nl);
  return result;
}

// The mark the program attached to `iif` gives a packet from `src` to `dst` received there.
uint32_t Classify(const std::string& iif, const std::string& src, const std::string& dst) {
  int ifindex = static_cast<int>(if_nametoindex(iif.c_str()));
  LIBBPF_OPTS(bpf_tc_hook, hook, .ifindex = ifindex, .attach_point = BPF_TC_INGRESS);
  LIBBPF_OPTS(bpf_tc_opts, query, .handle = kTcHandle, .priority = kTcPriority);
  if (bpf_tc_query(&hook, &query)) return ~0u;
  int fd = bpf_prog_get_fd_by_id(query.prog_id);
  if (fd < 0) return ~0u;
  unsigned char packet[ETH_HLEN + sizeof(iphdr) + 8] = {};
  packet[12] = 0x08;  // ETH_P_IP
  iphdr ip{};
  ip.version = 4;
  ip.ihl = 5;
  ip.ttl = 64;
  ip.protocol = IPPROTO_UDP;
  ip.tot_len = htons(sizeof(iphdr) + 8);
  ip.saddr = Ip(src).s_addr;
  ip.daddr = Ip(dst).s_addr;
  std::memcpy(packet + ETH_HLEN, &ip, sizeof ip);  // unaligned in the frame
  __sk_buff ctx{};
  ctx.ifindex = static_cast<uint32_t>(ifindex);
  LIBBPF_OPTS(bpf_test_run_opts, run);
  run.data_in = packet;
  run.data_size_in = sizeof packet;
  run.ctx_in = run.ctx_out = &ctx;
  run.ctx_size_in = run.ctx_size_out = sizeof ctx;
  int error = bpf_prog_test_run_opts(fd, &run);
  close(fd);
  return error ? ~0u : ctx.mark;
}

class ClassifierTest : public pbrtest::BackendTest {
 protected:
  ClassifierTest() : BackendTest("classifier=10") {}

  void SetUp() override {
    BackendTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    // Main has no default route: a route of its own for some destinations, none for others,
    // and routes that end a FIB rule's lookup (blackhole, unreachable, prohibit) or send it on
    // to the later rules (throw), as no route does.
    for (const char* route :
         {"10.9.0.0/16 via 10.0.1.3", "throw 10.9.1.0/24", "blackhole 10.7.0.0/16",
          "unreachable 10.6.0.0/16", "prohibit 10.5.0.0/16"})
      ASSERT_EQ(bed_->Ip("r", std::string("route add ") + route), 0) << route;
  }

  // Starts (or restarts) a backend.
  void Start(bool classifier) {
    auto* log = vqmw_trace_register_category("classifier");
    if (classifier)
      Use(std::make_unique<ClassifierClient>(mw_, log, ClassifierClient::Options{Names, 2s}));
    else
      Use(std::make_unique<KernelClient>(mw_, log, KernelClient::Options{Names, 2s}));
  }
};

// Every decision for a grid of packets that the rules' prefixes cut in many ways.
std::vector<std::string> Decisions(bool classifier, const std::vector<std::string>& iifs) {
  std::vector<std::string> out;
  for (const std::string& iif : iifs)
    for (const char* src : {"10.1.2.3", "10.1.2.200", "10.1.5.5", "10.2.0.1"})
      for (const char* dst :
           {"10.9.9.9", "10.9.2.1", "10.9.1.1", "10.8.0.1", "10.7.0.1", "10.6.0.1", "10.5.0.1"}) {
        uint32_t mark = classifier ? Classify(iif, src, dst) : 0;
        out.push_back(iif + " " + src + " -> " + dst + ": " + RouteGet(iif, src, dst, mark));
      }
  return out;
}

std::vector<Entry> RandomRules(std::mt19937& random, int count) {
  const std::vector<std::string> sources = {"", "10.1.0.0/16", "10.1.2.0/24", "10.1.2.3/32",
                                            "10.0.0.0/8"};
  const std::vector<std::string> destinations = {
      "", "10.9.0.0/16", "10.9.9.0/24", "10.9.9.9/32", "10.8.0.0/16", "10.4.0.0/14"};
  const std::vector<std::string> hops = {"", "10.0.1.2", "10.0.2.2", "10.0.2.3"};
  auto pick = [&](size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(random); };
  std::vector<Entry> rules;
  std::set<uint16_t> ids;
  while (static_cast<int>(rules.size()) < count) {
    auto id = static_cast<uint16_t>(1 + pick(60000));
    if (!ids.insert(id).second) continue;
    EntryBuilder b(id);
    b.Priority(static_cast<uint32_t>(pick(12)));  // many equal priorities
    if (auto s = sources[pick(sources.size())]; !s.empty()) b.From(s);
    if (auto d = destinations[pick(destinations.size())]; !d.empty()) b.To(d);
    if (pick(2)) {
      b.Iif(static_cast<uint32_t>(1 + pick(4)));
      if (pick(3) == 0) b.Iif(static_cast<uint32_t>(1 + pick(4)));
    }
    if (auto h = hops[pick(hops.size())]; !h.empty()) b.Via(h);
    rules.push_back(b.Build());
  }
  return rules;
}

TEST_F(ClassifierTest, ForwardsExactlyAsTheFibRulesOnRandomRuleSets) {
  // Sixteen sets: with fewer, a rule with a next hop that only a second search finds is rare.
  for (unsigned seed = 1; seed <= 16; ++seed) {
    std::mt19937 random(seed);
    auto rules = RandomRules(random, 40);
    std::map<bool, std::vector<std::string>> up, down;
    for (bool classifier : {false, true}) {
      Start(classifier);
      for (const Entry& e : rules) client_->SetEntry(e.getId(), e);
      ASSERT_TRUE(Settle()) << "seed " << seed;
      if (classifier) Classify("ra", "10.1.2.3", "10.9.9.9");  // attached at all?
      up[classifier] = Decisions(classifier, {"ra", "rb1", "rb2"});
      // A dead next hop: its rules' packets go on to the later rules.
      ASSERT_EQ(bed_->Ip("r", "link set rb2 down"), 0);
      ASSERT_TRUE(RunUntil([&] {
        for (const Entry& e : rules) {
          ActionL3NextHop via(in_addr{});
          bool dead =
              e.getAction(via) == PBR_OK && (ntohl(via.getL3NextHop().s_addr) >> 8) == 0x0a0002;
          if (dead && Status(e.getId()) != 2) return false;
        }
        return settled_();
      }));
      down[classifier] = Decisions(classifier, {"ra", "rb1"});
      ASSERT_EQ(bed_->Ip("r", "link set rb2 up"), 0);
      ASSERT_TRUE(RunUntil([&] { return settled_(); }));
      for (const Entry& e : rules) client_->DeleteEntry(e.getId());
      ASSERT_TRUE(Settle());
      statuses_.clear();
    }
    EXPECT_EQ(up[true], up[false]) << "seed " << seed;
    EXPECT_EQ(down[true], down[false]) << "seed " << seed;
  }
}

TEST_F(ClassifierTest, SteersRealPacketsAndRestartsWithoutLoss) {
  Start(true);
  EXPECT_EQ(bed_->PingPath(), "rb1");
  client_->SetEntry(
      7, EntryBuilder(7).Priority(10).From("10.1.0.0/16").Iif(1).Via("10.0.2.2").Build());
  ASSERT_TRUE(Settle());
  EXPECT_EQ(Status(7), 1u);
  EXPECT_EQ(bed_->PingPath(), "rb2");

  // A restarted backend takes over from the previous run's program while packets flow.
  uint64_t before = bed_->TxPackets("rb2");
  pbrtest::BackgroundPing ping(*bed_, 40, 10);
  Start(true);
  client_->SetEntry(
      7, EntryBuilder(7).Priority(10).From("10.1.0.0/16").Iif(1).Via("10.0.2.2").Build());
  ASSERT_TRUE(Settle());
  auto [sent, received] = ping.Wait();
  EXPECT_EQ(received, sent);
  EXPECT_GE(bed_->TxPackets("rb2") - before, static_cast<uint64_t>(sent));
  const auto rules = bed_->Rules(kRouteProtocol);
  EXPECT_EQ(
      std::count_if(rules.begin(), rules.end(), [](const auto& r) { return r.contains("fwmark"); }),
      1)
      << "one mark rule for the one next hop";

  client_->DeleteEntry(7);
  ASSERT_TRUE(RunUntil([&] { return Status(7) == 0 && settled_(); }));
  EXPECT_EQ(bed_->PingPath(), "rb1");
}

}  // namespace
}  // namespace pbr::element
