// pbr-mgmtd as its own process and a daemon's handlers behind the real framework: attachment
// with the initial load, commits as change callbacks, refusals, operational requests, and
// re-attachment across server restarts.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <thread>

#include "platform/vqconfd.h"
#include "status/status.h"
#include "tests/element/framework/mgmt_harness.h"
#include "tests/element/middleware/element_env.h"
#include "tests/support/entry_builder.h"

namespace pbrtest {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::SizeIs;

class AttachCommitTest : public ::testing::Test {
 protected:
  void SetUp() override {
    mw_ = vqmw_init("framework-test");
    ASSERT_NE(mw_, nullptr);
    config_ = std::make_unique<RecordingConfigHandler>(&cache_);
    status_ = std::make_unique<pbr::Status>(vqmw_trace_register_category("pbr-app"), &cache_);
  }
  void TearDown() override {
    app_.reset();
    op_.reset();
    vqmw_finish(&mw_);
  }

  void StoreRunning(const std::string& json) {
    std::filesystem::create_directories(env_.StateDir());
    std::ofstream(env_.StateDir() + "/running.json") << json;
  }

  // Starts the server and the daemon's framework, and waits for the first attachment.
  void StartAll() {
    ASSERT_TRUE(server_.Start()) << env_.Log();
    app_ = std::make_unique<vqconfd::AppInterface>(
        mw_, vqmw_trace_register_category("framework-test"), "pbr-app",
        std::vector<vqconfd::ConfigHandler*>{config_.get()}, std::vector<vqconfd::ActionHandler*>{},
        std::vector<vqconfd::DataHandler*>{status_.get()}, vqconfd::ELEM_CONFD_PHASE_2, 0);
    ASSERT_TRUE(RunLoopUntil(mw_, [&] { return config_->attachments == 1; }));
    op_ = std::make_unique<Operator>(mw_);
    ASSERT_TRUE(op_->connected());
  }

  const pbr::Entry& Rule(uint32_t id) { return cache_.configs.at(id).entry; }

  void ExpectOk(const pbr::mgmt::Response& r) {
    EXPECT_TRUE(r.ok()) << r.error().message() << " at " << r.error().path();
  }

  ElementEnv env_;
  vqmw_t* mw_ = nullptr;
  // The daemon's rule cache, with its configuration and operational data handlers on it.
  pbr::ConfigCache cache_;
  std::unique_ptr<RecordingConfigHandler> config_;
  std::unique_ptr<pbr::Status> status_;
  MgmtServer server_;
  std::unique_ptr<vqconfd::AppInterface> app_;
  std::unique_ptr<Operator> op_;
};

constexpr const char* kTwoRules = R"({"pbr:router":{"pbr":[
  {"id":20,"rule":{"priority":2,"match":{"interface":["eth2","eth1"],
     "destination":{"ipv4-address":{"no-mask":{"ip":"192.0.2.1"}}}}}},
  {"id":10,"rule":{"priority":1,"description":"ten",
     "match":{"source":{"ipv4-address":{"mask":{"ip":"10.1.2.3/16"}}}},
     "action":{"next-hop":{"ip":"10.0.0.1"}}}}]}})";

TEST_F(AttachCommitTest, AttachmentLoadsTheStoredConfigurationIntoTheDaemon) {
  StoreRunning(kTwoRules);
  StartAll();
  EXPECT_THAT(config_->events,
              ElementsAre("ConfdConnected 2", "ReadInitialConfig", "ApplyInitialConfig"));
  EXPECT_EQ(config_->firstRule, 10u) << "list positions are in key order";
  EXPECT_EQ(cache_.configs.at(10).description, "ten");
  EXPECT_EQ(Rule(10), EntryBuilder(10).Priority(1).From("10.1.2.3/16").Via("10.0.0.1").Build());
  EXPECT_EQ(Rule(20), EntryBuilder(20).Priority(2).To("192.0.2.1").Iif("eth2").Iif("eth1").Build());
}

TEST_F(AttachCommitTest, CommitsArriveAsChangeCallbacksBetweenStartAndApply) {
  StartAll();
  ExpectOk(op_->Merge(R"({"pbr:router":{"pbr":[{"id":7,"rule":{"priority":10,
      "match":{"interface":["eth1"],"destination":{"ipv4-address":{"no-mask":{"ip":"192.0.2.1"}}}},
      "action":{"next-hop":{"ip":"10.0.0.1"}}}}]}})"));
  // The commit is answered once the subscriber has applied it.
  EXPECT_EQ(config_->commits, 1);
  EXPECT_THAT(config_->LastCommit(),
              ElementsAre("MOP_CREATED /router/pbr{7}", "MOP_VALUE_SET /router/pbr{7}/id 7",
                          "MOP_VALUE_SET /router/pbr{7}/rule/priority 10",
                          "MOP_CREATED /router/pbr{7}/rule/match/interface{eth1}",
                          "MOP_VALUE_SET "
                          "/router/pbr{7}/rule/match/destination/ipv4-address/no-mask/ip "
                          "192.0.2.1",
                          "MOP_VALUE_SET /router/pbr{7}/rule/action/next-hop/ip 10.0.0.1"));

  ExpectOk(op_->Edit("/router/pbr{7}/rule/match/destination/ipv4-address/mask/ip", "10.1.0.0/16"));
  EXPECT_THAT(
      config_->LastCommit(),
      ElementsAre("MOP_MODIFIED /router/pbr{7}",
                  "MOP_DELETED /router/pbr{7}/rule/match/destination/ipv4-address/no-mask/ip",
                  "MOP_VALUE_SET "
                  "/router/pbr{7}/rule/match/destination/ipv4-address/mask/ip "
                  "10.1.0.0/16"));

  ExpectOk(op_->Delete("/router/pbr{7}/rule/action/next-hop/ip"));
  EXPECT_THAT(config_->LastCommit(),
              ElementsAre("MOP_MODIFIED /router/pbr{7}",
                          "MOP_DELETED /router/pbr{7}/rule/action/next-hop/ip"));

  ExpectOk(op_->Delete("/router/pbr{7}"));
  EXPECT_THAT(config_->LastCommit(), ElementsAre("MOP_DELETED /router/pbr{7}"));
  EXPECT_EQ(config_->commits, 4);

  // ITER_CONTINUE skips the nodes below and the commit goes on.
  config_->steer = [](const std::string& kp) {
    return kp == "/router/pbr{1}" ? ITER_CONTINUE : ITER_RECURSE;
  };
  ExpectOk(op_->Merge(R"({"pbr:router":{"pbr":[{"id":1,"rule":{"priority":1}},
                                                {"id":2,"rule":{"priority":2}}]}})"));
  EXPECT_THAT(config_->LastCommit(),
              ElementsAre("MOP_CREATED /router/pbr{1}", "MOP_CREATED /router/pbr{2}",
                          "MOP_VALUE_SET /router/pbr{2}/id 2",
                          "MOP_VALUE_SET /router/pbr{2}/rule/priority 2"));

  // A refused commit reaches neither the subscriber nor the stored configuration.
  const size_t events = config_->events.size();
  const std::string stored = ElementEnv::Read(env_.StateDir() + "/running.json");
  EXPECT_FALSE(op_->Edit("/router/pbr{1}/rule/description", std::string(33, 'x')).ok());
  EXPECT_EQ(config_->events.size(), events);
  EXPECT_EQ(ElementEnv::Read(env_.StateDir() + "/running.json"), stored);
}

TEST_F(AttachCommitTest, ARollbackReachesTheDaemonAsTheChangesOfItsDiff) {
  StartAll();
  ExpectOk(op_->Merge(kTwoRules));
  ExpectOk(op_->Edit("/router/pbr{10}/rule/priority", "5"));
  ExpectOk(op_->Delete("/router/pbr{20}"));
  pbr::mgmt::ClientMessage rollback;
  rollback.mutable_rollback()->set_id(1);
  ExpectOk(op_->Call(rollback));
  EXPECT_THAT(
      config_->LastCommit(),
      ElementsAre("MOP_MODIFIED /router/pbr{10}", "MOP_VALUE_SET /router/pbr{10}/rule/priority 1",
                  "MOP_CREATED /router/pbr{20}", "MOP_VALUE_SET /router/pbr{20}/id 20",
                  "MOP_VALUE_SET /router/pbr{20}/rule/priority 2",
                  "MOP_CREATED /router/pbr{20}/rule/match/interface{eth2}",
                  "MOP_CREATED /router/pbr{20}/rule/match/interface{eth1}",
                  "MOP_VALUE_SET "
                  "/router/pbr{20}/rule/match/destination/ipv4-address/no-mask/ip "
                  "192.0.2.1"));
}

TEST_F(AttachCommitTest, TheSubscriberReattachesWithTheLastCommitWhenAKilledServerReturns) {
  StartAll();
  ExpectOk(op_->Merge(R"({"pbr:router":{"pbr":[{"id":3,"rule":{"priority":30}}]}})"));
  ExpectOk(op_->Edit("/router/pbr{3}/rule/priority", "31"));
  op_.reset();
  server_.Stop(SIGKILL);
  ASSERT_TRUE(RunLoopUntil(mw_, [&] { return config_->events.back() == "ConfdDisconnected"; }));

  ASSERT_TRUE(server_.Start()) << env_.Log();
  ASSERT_TRUE(RunLoopUntil(mw_, [&] { return config_->attachments == 2; }));
  EXPECT_THAT(cache_.configs, SizeIs(1));
  EXPECT_EQ(Rule(3), EntryBuilder(3).Priority(31).Build());
  EXPECT_THAT(std::vector<std::string>(config_->events.end() - 4, config_->events.end()),
              ElementsAre("ConfdDisconnected", "ConfdConnected 2", "ReadInitialConfig",
                          "ApplyInitialConfig"));
}

TEST_F(AttachCommitTest, AHandlerExceptionDuringACommitReattachesWithTheWholeConfiguration) {
  StartAll();
  config_->throwOnApply = true;
  op_->Merge(R"({"pbr:router":{"pbr":[{"id":4,"rule":{"priority":4}}]}})");
  ASSERT_TRUE(RunLoopUntil(mw_, [&] { return config_->attachments == 2; }));
  EXPECT_EQ(Rule(4), EntryBuilder(4).Priority(4).Build());
  EXPECT_THAT(env_.Faults(), HasSubstr("rule table full"));
}

TEST_F(AttachCommitTest, TheOperationalViewAsksTheCallpointForEachConfiguredRuleInOrder) {
  StoreRunning(kTwoRules);
  StartAll();
  status_->SetHwStatus(10, 1);
  status_->SetHwStatus(20, 2);
  const pbr::mgmt::Response all = op_->Operational();
  ExpectOk(all);
  EXPECT_LT(all.data().find("\"id\":10"), all.data().find("\"id\":20"));
  EXPECT_THAT(all.data(), HasSubstr("\"source-ip\":\"10.1.2.3/16\""));
  EXPECT_THAT(all.data(), HasSubstr("\"hw-status\":\"programmed\""));
  EXPECT_THAT(all.data(), HasSubstr("\"hw-status\":\"failed\""));

  const pbr::mgmt::Response one = op_->Operational(20);
  ExpectOk(one);
  EXPECT_THAT(one.data(), HasSubstr("\"id\":20"));
  EXPECT_THAT(one.data(), Not(HasSubstr("\"id\":10")));
  EXPECT_FALSE(op_->Operational(99).ok());

  // A callpoint exception (a mask without a prefix length) leaves out only that entry; the daemon
  // stays attached and serving.
  cache_.GetConfig(10).entry = EntryBuilder(10).From("10.0.0.0/255.0.255.0").Build();
  const pbr::mgmt::Response partial = op_->Operational();
  EXPECT_THAT(partial.error().message(), HasSubstr("10: the callpoint failed"));
  EXPECT_THAT(partial.data(), HasSubstr("\"id\":20"));
  EXPECT_THAT(partial.data(), Not(HasSubstr("\"id\":10")));
  cache_.GetConfig(10).entry = EntryBuilder(10).Build();
  ExpectOk(op_->Operational());
}

// The operator's run-time controls of the element's processes: trace levels through the
// server, and SIGHUP for log rotation.
TEST_F(AttachCommitTest, TraceLevelsChangeEverywhereAtRunTimeAndSighupReopensTheServersLog) {
  StartAll();
  zlog_category_t* category = vqmw_trace_register_category("framework-test");
  auto debug = [&](std::optional<std::string> levels) {
    pbr::mgmt::ClientMessage m;
    auto* body = m.mutable_debug();
    if (levels) body->set_levels(*levels);
    return op_->Call(m);
  };
  ASSERT_FALSE(zlog_level_enabled(category, 10));
  pbr::mgmt::Response r = debug("framework-test=10");
  ExpectOk(r);
  EXPECT_THAT(r.data(), HasSubstr("pbr-mgmtd: *=off,framework-test=10\n"));
  EXPECT_THAT(r.data(),
              HasSubstr("pbr-app (pid " + std::to_string(getpid()) + "): *=off,framework-test=10"));
  r = debug(std::nullopt);  // by now the change has reached this process
  EXPECT_TRUE(zlog_level_enabled(category, 10));
  EXPECT_FALSE(debug("framework-test=loud").ok());

  const std::string rotated = env_.LogPath() + ".1";
  ASSERT_EQ(rename(env_.LogPath().c_str(), rotated.c_str()), 0);
  server_.Signal(SIGHUP);
  for (int i = 0; i < 100 && env_.Log().find("pbr-mgmtd: log reopened") == std::string::npos; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  EXPECT_THAT(env_.Log(), HasSubstr("pbr-mgmtd: log reopened"));
  EXPECT_THAT(ElementEnv::Read(rotated), HasSubstr("pbr-mgmtd: SIGHUP received"));
  ExpectOk(op_->Edit("/router/pbr{9}/rule/priority", "9"));  // still serving
}

}  // namespace
}  // namespace pbrtest
