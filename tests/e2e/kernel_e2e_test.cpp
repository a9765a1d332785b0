// The element end to end on the kernel backend: pbr-mgmtd and pbr-app run as separate processes
// in the router namespace of a routed test network (started with `ip netns exec`), in the test's
// own runtime and state directories; the operator commits rules with pbr-cli and reads
// `show pbr ID --json`, and bounded pings from the source host show which next hop carries the
// traffic.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "tests/element/cli/child_process.h"
#include "tests/element/kernel/testbed.h"
#include "tests/element/middleware/element_env.h"

namespace {

using namespace std::chrono_literals;
using pbrtest::Child;
using pbrtest::ChildResult;
using pbrtest::TestBed;

// Rule 7 as the operator commits it: traffic from a's subnet arriving on ra goes to `next_hop`.
std::vector<std::string> Rule7(const std::string& next_hop) {
  return {"set",
          "/router/pbr{7}/rule/priority",
          "10",
          "--",
          "set",
          "/router/pbr{7}/rule/match/interface{ra}",
          "--",
          "set",
          "/router/pbr{7}/rule/match/source/ipv4-address/mask/ip",
          "10.1.0.0/16",
          "--",
          "set",
          "/router/pbr{7}/rule/action/next-hop/ip",
          next_hop};
}

class KernelE2e : public ::testing::Test {
 protected:
  void SetUp() override {
    bed_ = std::make_unique<TestBed>();
    if (!bed_->ok()) GTEST_SKIP() << bed_->error();
    env_.Set("PBR_ELEMENT_BACKEND", "kernel");
    // The backend's status changes, adoption and refusals; the daemon's own records stay off.
    env_.Set("PBR_ELEMENT_TRACE", "pbr-app=40");
    env_.Set("PBR_ELEMENT_LOG", AppLog());
    std::string error;
    mgmtd_ = pbrtest::StartService({"ip", "netns", "exec", bed_->Ns("r"), PBR_MGMTD_BIN},
                                   (env_.root() / "notify").string(), &error);
    ASSERT_TRUE(mgmtd_) << "pbr-mgmtd did not start: " << error;
    StartApp();
  }

  void TearDown() override {
    if (HasFailure()) std::cerr << "pbr-app log:\n" << pbrtest::ElementEnv::Read(AppLog());
    for (auto* child : {&app_, &mgmtd_}) {
      if (!*child) continue;
      (*child)->Signal(SIGTERM);
      const ChildResult end = (*child)->Finish(10s);
      EXPECT_EQ(end.status, 0) << end.out << end.err;
      child->reset();
    }
    bed_.reset();
  }

  std::string AppLog() const { return (env_.root() / "pbr-app.log").string(); }

  // pbr-app in namespace r, with the test's element environment, once it has attached and
  // applied the configuration (its READY=1); optionally without CAP_NET_ADMIN.
  void StartApp(bool net_admin = true) {
    std::string error;
    std::vector<std::string> argv{"ip", "netns", "exec", bed_->Ns("r")};
    if (!net_admin)
      argv.insert(argv.end(), {"setpriv", "--bounding-set", "-net_admin", "--"});
    argv.push_back(PBR_APP_BIN);
    app_ = pbrtest::StartService(argv, (env_.root() / "notify-app").string(), &error);
    ASSERT_TRUE(app_) << "pbr-app did not attach: " << error;
  }

  // Stops pbr-app as its service manager would and starts it again.
  void RestartApp(bool net_admin = true) {
    app_->Signal(SIGTERM);
    const ChildResult end = app_->Finish(10s);
    app_.reset();
    ASSERT_EQ(end.status, 0) << end.out << end.err;
    StartApp(net_admin);
  }

  ChildResult Cli(std::vector<std::string> args) {
    args.insert(args.begin(), PBR_CLI_BIN);
    return pbrtest::RunChild(std::move(args), {}, 20s);
  }

  void Commit(const std::vector<std::string>& args) {
    const ChildResult r = Cli(args);
    ASSERT_EQ(r.status, 0) << r.out << r.err;
  }

  // A leaf of rule `id`'s `rule` as `show pbr ID --json` gives it; "" when absent.
  std::string RuleLeaf(uint32_t id, const std::string& leaf) {
    const ChildResult r = Cli({"show", "pbr", std::to_string(id), "--json"});
    if (r.status != 0) return "";
    auto json = nlohmann::json::parse(r.out, nullptr, false);
    try {
      return json.at("pbr:router").at("pbr-status").at(0).at("rule").value(leaf, "");
    } catch (const nlohmann::json::exception&) {
      return "";
    }
  }
  std::string HwStatus(uint32_t id) { return RuleLeaf(id, "hw-status"); }
  std::string HwReason(uint32_t id) { return RuleLeaf(id, "hw-reason"); }

  // Polls until `done` holds, at most `limit`. The view has no change events to wait for.
  static bool Eventually(const std::function<bool()>& done, std::chrono::milliseconds limit = 15s) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done()) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::sleep_for(50ms);
    }
    return true;
  }

  bool AwaitHwStatus(uint32_t id, const std::string& status) {
    return Eventually([&] { return HwStatus(id) == status; });
  }

  // Waits until the ping has gone `packets` more packets out of `dev`.
  void AwaitTraffic(const std::string& dev, uint64_t packets) {
    const uint64_t start = bed_->TxPackets(dev);
    ASSERT_TRUE(Eventually([&] { return bed_->TxPackets(dev) >= start + packets; }, 5s))
        << "no traffic on " << dev;
  }

  // Every rule and route of the backend's protocol in r, as ip prints them.
  nlohmann::json KernelObjects() {
    return {{"rules", bed_->Rules(77)},
            {"routes", bed_->IpJson("r", "route show table all proto 77")}};
  }

  pbrtest::ElementEnv env_;
  std::unique_ptr<TestBed> bed_;
  std::unique_ptr<Child> mgmtd_;
  std::unique_ptr<Child> app_;
};

TEST_F(KernelE2e, CommittedRulesSteerTrafficSurviveARestartOfTheDaemonAndShowFailures) {
  EXPECT_EQ(bed_->PingPath(), "rb1");
  Commit(Rule7("10.0.2.2"));
  Commit({"set", "/router/pbr{8}/rule/priority", "20", "--", "set",
          "/router/pbr{8}/rule/match/destination/ipv4-address/mask/ip", "10.8.0.0/16", "--", "set",
          "/router/pbr{8}/rule/action/next-hop/ip", "10.0.1.2"});
  Commit({"set", "/router/pbr{9}/rule/priority", "30", "--", "set",
          "/router/pbr{9}/rule/match/destination/ipv4-address/no-mask/ip", "10.9.9.8"});
  for (uint32_t id : {7, 8, 9}) ASSERT_TRUE(AwaitHwStatus(id, "programmed")) << id;
  EXPECT_EQ(bed_->PingPath(), "rb2");
  EXPECT_EQ(HwReason(7), "");
  const nlohmann::json before = KernelObjects();
  ASSERT_EQ(before["rules"].size(), 4u) << before.dump();  // with the local traffic guard
  ASSERT_EQ(before["routes"].size(), 2u) << before.dump();

  // A restart loses no packets and leaves the kernel's objects as they were.
  pbrtest::BackgroundPing ping(*bed_, 200, 10);
  AwaitTraffic("rb2", 20);
  RestartApp();
  for (uint32_t id : {7, 8, 9}) ASSERT_TRUE(AwaitHwStatus(id, "programmed")) << id;
  AwaitTraffic("rb2", 20);
  auto [sent, received] = ping.Wait();
  EXPECT_EQ(sent, 200);
  EXPECT_EQ(received, sent) << "packets lost across the restart";
  EXPECT_EQ(KernelObjects(), before) << "the restarted daemon changed the kernel's objects";

  ASSERT_EQ(bed_->Ip("b2", "link set b2r down"), 0);
  ASSERT_TRUE(AwaitHwStatus(7, "failed")) << HwStatus(7);
  EXPECT_EQ(HwReason(7), "next-hop link down");
  EXPECT_EQ(bed_->PingPath(), "rb1") << "traffic should fall back to the main table";

  // Deletion takes the rules and their routes away.
  Commit({"delete", "/router/pbr{7}", "--", "delete", "/router/pbr{8}", "--", "delete",
          "/router/pbr{9}"});
  ASSERT_TRUE(Eventually([&] {
    const nlohmann::json now = KernelObjects();
    return now["rules"].empty() && now["routes"].empty();
  })) << KernelObjects().dump();
}

TEST_F(KernelE2e, FailureReasonsReachTheOperatorAndTheLog) {
  // A gateway the kernel refuses: the subnet's broadcast address.
  Commit(Rule7("10.0.2.255"));
  ASSERT_TRUE(AwaitHwStatus(7, "failed")) << HwStatus(7);
  EXPECT_EQ(HwReason(7), "Nexthop has invalid gateway");

  // Without CAP_NET_ADMIN every new request is refused, and the log says why.
  RestartApp(false);
  Commit({"set", "/router/pbr{9}/rule/priority", "30", "--", "set",
          "/router/pbr{9}/rule/match/destination/ipv4-address/no-mask/ip", "10.9.9.8"});
  ASSERT_TRUE(AwaitHwStatus(9, "failed")) << HwStatus(9);
  EXPECT_EQ(HwReason(9), "not permitted: needs CAP_NET_ADMIN");
  EXPECT_NE(
      pbrtest::ElementEnv::Read(AppLog()).find("rule 9 failed: not permitted: needs CAP_NET_ADMIN"),
      std::string::npos);
}

}  // namespace
