// The memory backend through pbr::PbrClient::Build: the rules it shows and the status reports it
// delivers on the loop.
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <utility>
#include <vector>

#include "element/middleware/loop.h"
#include "element/pbr/rule_reasons.h"
#include "platform/pbr_client.h"
#include "tests/element/middleware/element_env.h"
#include "tests/support/entry_builder.h"
#include "tests/support/golden.h"

namespace {

using namespace std::chrono_literals;
using pbrtest::EntryBuilder;
using Report = std::pair<uint16_t, uint32_t>;

class MemoryBackendTest : public ::testing::Test, public pbr::PbrStatusItf {
 protected:
  void SetUp() override {
    ASSERT_NE(mw_, nullptr);
    client_.reset(pbr::PbrClient::Build(mw_, vqmw_trace_register_category("pbr-app")));
    client_->RegisterStatusListener(this);
  }
  void TearDown() override {
    client_.reset();
    vqmw_finish(&mw_);
  }

  void StatusUpdateCb(const uint16_t& id, uint32_t status) override {
    reports_.emplace_back(id, status);
    if (reports_.size() >= awaited_) vqmw::Exit(mw_, 0);
  }

  // Runs the loop until `count` reports in all have arrived (or 10 s have passed).
  void AwaitReports(size_t count) {
    awaited_ = count;
    bool running = true;
    auto guard = vqmw::StartTimer(mw_, 10s, [&] { vqmw::Exit(mw_, 0); });
    EXPECT_EQ(vqmw_loop_while_timeout(mw_, &running, 0), 0);
    EXPECT_EQ(reports_.size(), count);
  }

  std::string StatePath() const { return env_.StateDir() + "/pbr-manager.json"; }
  nlohmann::json State() const { return nlohmann::json::parse(std::ifstream(StatePath())); }

  pbrtest::ElementEnv env_;
  vqmw_t* mw_ = vqmw_init("pbr-app");
  std::unique_ptr<pbr::PbrClient> client_;
  std::vector<Report> reports_;
  size_t awaited_ = 0;
};

TEST_F(MemoryBackendTest, StartsWithAnEmptyViewReplacingAnOldOne) {
  std::ofstream(StatePath()) << "stale";
  client_.reset(pbr::PbrClient::Build(mw_, nullptr));
  EXPECT_EQ(pbrtest::ElementEnv::Read(StatePath()),
            "{\n  \"backend\": \"memory\",\n  \"rules\": []\n}\n");
}

TEST_F(MemoryBackendTest, ShowsTheRulesAndReportsEachChangeInOrderOnTheLoop) {
  client_->SetEntry(3, EntryBuilder(3).Priority(300).From("10.1.0.0/16").Via("192.0.2.1").Build());
  client_->SetEntry(1, EntryBuilder(1).Priority(100).Build());
  client_->SetEntry(3, EntryBuilder(3)
                           .Priority(30)
                           .From("10.1.0.0/16")
                           .To("198.51.100.7")
                           .Iif("lo")
                           .Iif("pbrtest-absent0")
                           .Via("192.0.2.9")
                           .Build());
  client_->SetEntry(8, EntryBuilder(8).Priority(80).To("203.0.113.0/24").Build());
  client_->DeleteEntry(1);
  client_->DeleteEntry(9);  // never set
  // Nothing is reported from inside the calls.
  EXPECT_TRUE(reports_.empty());

  AwaitReports(6);
  EXPECT_EQ(reports_, (std::vector<Report>{{3, 1}, {1, 1}, {3, 1}, {8, 1}, {1, 0}, {9, 0}}));
  pbrtest::ExpectGolden("memory_state.json", pbrtest::ElementEnv::Read(StatePath()));
}

TEST_F(MemoryBackendTest, RuleWithAnUnknownInterfaceIdFails) {
  // An identifier limid_from_intfname never handed out.
  client_->SetEntry(5, EntryBuilder(5).Priority(5).Iif(0xffffffffu).Build());
  AwaitReports(1);
  EXPECT_EQ(reports_, (std::vector<Report>{{5, 2}}));
  EXPECT_EQ(State()["rules"][0]["status"], 2);
  EXPECT_EQ(State()["rules"][0]["match"]["ingress-interfaces"][0], "limid:4294967295");
  EXPECT_NE(env_.Log().find("rule 5: unknown ingress interface id 0xffffffff"), std::string::npos);
  EXPECT_EQ(pbr::RuleReasons::Instance().Reason(5), "unknown ingress interface id 4294967295");
}

TEST_F(MemoryBackendTest, ReportsGoToTheListenerOfTheMomentOrNowhere) {
  client_->SetEntry(1, EntryBuilder(1).Priority(1).Build());
  client_->RegisterStatusListener(nullptr);
  bool running = true;
  EXPECT_EQ(vqmw_loop_while_timeout(mw_, &running, 5), 0);
  EXPECT_TRUE(reports_.empty());
  EXPECT_EQ(State()["rules"].size(), 1u);

  client_->RegisterStatusListener(this);
  client_->DeleteEntry(1);
  AwaitReports(1);
  EXPECT_EQ(reports_, (std::vector<Report>{{1, 0}}));
}

TEST_F(MemoryBackendTest, UnwritableStateIsReportedAndRulesStillWork) {
  env_.Set("PBR_ELEMENT_STATE_DIR", "/proc/pbr-element-cannot-exist");
  client_.reset(pbr::PbrClient::Build(mw_, nullptr));
  client_->RegisterStatusListener(this);
  client_->SetEntry(4, EntryBuilder(4).Priority(4).Build());
  AwaitReports(1);
  EXPECT_EQ(reports_, (std::vector<Report>{{4, 1}}));
  EXPECT_NE(env_.Log().find("pbr-manager: cannot show the rules"), std::string::npos);
}

// A commit of every possible rule arrives in one callback; the view is rewritten once.
TEST_F(MemoryBackendTest, BurstOfAllRuleIdsIsShownWithOneRewrite) {
  int watch = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  ASSERT_GE(watch, 0);
  ASSERT_GE(inotify_add_watch(watch, env_.StateDir().c_str(), IN_MOVED_TO), 0);

  constexpr size_t kRules = 65536;
  auto start = std::chrono::steady_clock::now();
  vqmw::Defer(mw_, [&] {
    for (size_t id = kRules; id-- > 0;) {
      const auto rule = static_cast<uint16_t>(id);
      client_->SetEntry(rule, EntryBuilder(rule).Priority(rule).From("10.0.0.0/8").Build());
    }
  });
  AwaitReports(kRules);
  auto elapsed = std::chrono::steady_clock::now() - start;

  EXPECT_EQ(reports_.front(), (Report{65535, 1}));
  EXPECT_EQ(reports_.back(), (Report{0, 1}));
  nlohmann::json state = State();
  ASSERT_EQ(state["rules"].size(), kRules);
  EXPECT_EQ(state["rules"][0]["id"], 0);  // shown in ascending id
  EXPECT_EQ(state["rules"][kRules - 1]["id"], 65535);

  char events[4096];
  ssize_t n = read(watch, events, sizeof events);
  ASSERT_GT(n, 0);
  EXPECT_EQ(static_cast<size_t>(n),
            sizeof(inotify_event) + reinterpret_cast<inotify_event*>(events)->len)
      << "the state file was replaced more than once";
  close(watch);
  // Generous for sanitizer builds on a shared machine; a rewrite per rule takes minutes.
  EXPECT_LT(elapsed, 30s);

  // The log has a line per status change up to its budget, then a summary when the second ends.
  bool running = true;
  vqmw_loop_while_timeout(mw_, &running, 1500);
  const std::string log = env_.Log();
  size_t lines = 0;
  for (size_t at = 0; (at = log.find("pbr-manager: rule ", at)) != std::string::npos; ++at) ++lines;
  EXPECT_LE(lines, static_cast<size_t>(pbr::RuleReasons::kLinesPerWindow));
  EXPECT_NE(log.find("more rule changes not logged one by one: programmed"), std::string::npos);
}

}  // namespace
