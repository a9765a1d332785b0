// What the server tells its commit observer and NETCONF about commits and locks, through
// sessions adopted as NETCONF's are: who committed over which session, one edit per changed
// rule, the server's own undoing, and how lock holders and the CLI's sessions are named.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "element/mgmt/framing.h"
#include "element/mgmt/mgmt.pb.h"
#include "element/mgmt/server.h"
#include "tests/element/middleware/element_env.h"

namespace pbr::mgmt {
namespace {

struct Recorder : CommitObserver {
  bool Listening() const override { return listening; }
  void Committed(CommitNotice notice) override { notices.push_back(std::move(notice)); }
  bool listening = true;
  std::vector<CommitNotice> notices;
};

class ServerNoticeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(sd_event_new(&event_), 0);
    ServerOptions options;
    options.runtimeDir = env_.RuntimeDir();
    options.stateDir = env_.StateDir();
    std::string error;
    server_ = Server::Create(event_, options, &error);
    ASSERT_TRUE(server_) << error;
    server_->SetCommitObserver(&recorder_);
  }
  void TearDown() override {
    for (int fd : fds_) close(fd);
    server_.reset();
    sd_event_unref(event_);
  }
  int Adopt(uint32_t netconfSession) {
    int fds[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds), 0);
    server_->AdoptSession(fds[1], "alice", netconfSession ? "netconf" : "cli", netconfSession);
    fds_.push_back(fds[0]);
    return fds[0];
  }
  Response Call(int fd, ClientMessage request) {
    FramedStream stream;
    stream.Queue(request);
    Response response;
    for (int turn = 0; turn < 2000; ++turn) {
      if (stream.HasOutput()) stream.WriteTo(fd);
      sd_event_run(event_, 1000);
      stream.ReadFrom(fd);
      std::string payload;
      ServerMessage message;
      if (stream.Next(&payload) == FramedStream::Frame::kComplete &&
          message.ParseFromString(payload) && message.has_response()) {
        return message.response();
      }
    }
    ADD_FAILURE() << "no response";
    return response;
  }
  Response Set(int fd, const std::string& path, const std::string& value, bool remove = false) {
    ClientMessage request;
    EditOperation* op = request.mutable_edit()->add_operation();
    op->set_kind(remove ? EditOperation::DELETE : EditOperation::SET);
    op->set_path(path);
    op->set_value(value);
    return Call(fd, request);
  }
  Response Lock(int fd) {
    ClientMessage request;
    request.mutable_lock();
    return Call(fd, request);
  }

  pbrtest::ElementEnv env_;
  sd_event* event_ = nullptr;
  std::unique_ptr<Server> server_;
  Recorder recorder_;
  std::vector<int> fds_;
};

TEST_F(ServerNoticeTest, CommitsAreToldWithTheirAuthorAndOneEditPerRule) {
  const int netconf = Adopt(7);
  const int cli = Adopt(0);
  ASSERT_TRUE(Set(netconf, "/router/pbr{3}/rule/priority", "3").ok());
  ASSERT_TRUE(Set(cli, "/router/pbr{3}/rule/priority", "4").ok());
  ASSERT_TRUE(Set(cli, "/router/pbr{3}", "", /*remove=*/true).ok());
  recorder_.listening = false;
  ASSERT_TRUE(Set(cli, "/router/pbr{4}/rule/priority", "4").ok());
  ClientMessage rollback;
  rollback.mutable_rollback()->set_id(1);
  recorder_.listening = true;
  ASSERT_TRUE(Call(cli, rollback).ok());

  ASSERT_EQ(recorder_.notices.size(), 4u);
  const struct {
    uint32_t session;
    std::vector<std::pair<std::string, std::string>> edits;
  } expected[] = {
      {7, {{"/pbr:router/pbr[id='3']", "create"}}},
      {0, {{"/pbr:router/pbr[id='3']", "replace"}}},
      {0, {{"/pbr:router/pbr[id='3']", "delete"}}},
      {0, {{"/pbr:router/pbr[id='3']", "create"}, {"/pbr:router/pbr[id='4']", "delete"}}},
  };
  for (size_t i = 0; i < recorder_.notices.size(); ++i) {
    const CommitNotice& notice = recorder_.notices[i];
    EXPECT_EQ(notice.user, "alice");
    EXPECT_FALSE(notice.byServer);
    EXPECT_EQ(notice.netconfSession, expected[i].session) << i;
    std::vector<std::pair<std::string, std::string>> edits;
    for (const auto& e : notice.edits) edits.emplace_back(e.target, e.operation);
    EXPECT_EQ(edits, expected[i].edits) << i;
  }
}

TEST_F(ServerNoticeTest, LocksAndSessionsNameEachSessionAsNetconfKnowsIt) {
  const int holder = Adopt(7);
  const int other = Adopt(9);
  const int cli = Adopt(0);
  ASSERT_TRUE(Lock(holder).ok());
  const Response refused = Lock(other);
  EXPECT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().lock_holder_netconf_session(), 7u);
  EXPECT_NE(refused.error().message().find("locked by NETCONF session 7 (user alice, netconf)"),
            std::string::npos);

  // The CLI's session is known past every NETCONF session id, in refusals too.
  ClientMessage lockCandidate;
  lockCandidate.mutable_lock()->set_target(LockRequest::CANDIDATE);
  ASSERT_TRUE(Call(cli, lockCandidate).ok());
  const Response denied = Call(other, lockCandidate);
  EXPECT_EQ(denied.error().lock_holder_netconf_session(), 0u);

  ClientMessage get;
  get.mutable_get_locks()->set_sessions(true);
  const auto locks = nlohmann::json::parse(Call(other, get).data());
  EXPECT_EQ(locks["running"]["netconf_session"], 7);
  EXPECT_EQ(locks["running"]["id"], 7);
  EXPECT_EQ(locks["running"]["client"], "netconf");
  EXPECT_GT(locks["running"]["since"].get<int64_t>(), 0);
  const uint32_t cliId = locks["candidate"]["id"];
  EXPECT_GT(cliId, kProtocolSessionBase);
  EXPECT_EQ(locks["candidate"]["netconf_session"], 0);
  EXPECT_NE(denied.error().message().find("locked by session " + std::to_string(cliId) +
                                          " (user alice, cli)"),
            std::string::npos);
  // Only the session that serves no NETCONF session is listed, with what it asked.
  ASSERT_EQ(locks["sessions"].size(), 1u);
  const auto& listed = locks["sessions"][0];
  EXPECT_EQ(listed["id"], cliId);
  EXPECT_EQ(listed["user"], "alice");
  EXPECT_EQ(listed["requests"], 1);
  EXPECT_EQ(listed["refusals"], 0);
  EXPECT_GT(listed["login"].get<int64_t>(), 0);
}

// NETCONF works edits out from what it read: entries a commit changed since that read refuse
// the request (a lost update otherwise), entries it did not touch go through.
TEST_F(ServerNoticeTest, EntriesChangedSinceTheEditReadThemRefuseIt) {
  const int netconf = Adopt(7);
  const int cli = Adopt(0);
  ASSERT_TRUE(Set(cli, "/router/pbr{1}/rule/priority", "1").ok());
  ASSERT_TRUE(Set(cli, "/router/pbr{2}/rule/priority", "2").ok());
  ClientMessage read;
  read.mutable_get_running()->mutable_select()->add_entry("/router/pbr{1}");
  const uint64_t readAt = Call(netconf, read).generation();
  ASSERT_TRUE(Set(cli, "/router/pbr{1}/rule/priority", "10").ok());

  auto setEntries = [&](const std::string& json, bool candidate) {
    ClientMessage request;
    request.mutable_set_entries()->set_json(json);
    request.mutable_set_entries()->set_candidate(candidate);
    request.mutable_set_entries()->set_read_generation(readAt);
    return Call(netconf, request);
  };
  for (const bool candidate : {true, false}) {  // the candidate first: running is committed
    const Response stale =
        setEntries(R"({"pbr:router":{"pbr":[{"id":1,"rule":{"priority":5}}]}})", candidate);
    EXPECT_FALSE(stale.ok()) << candidate;
    EXPECT_EQ(stale.error().path(), "/router/pbr{1}") << stale.error().message();
    EXPECT_TRUE(
        setEntries(R"({"pbr:router":{"pbr":[{"id":2,"rule":{"priority":6}}]}})", candidate).ok())
        << candidate;
  }
}

}  // namespace
}  // namespace pbr::mgmt
