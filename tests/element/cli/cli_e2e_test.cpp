// pbr-cli end to end: the management server runs as a process in a private runtime and state
// directory, and every step goes through the pbr-cli binary as an operator would use it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <thread>

#include <nlohmann/json.hpp>

#include "tests/element/cli/child_process.h"
#include "tests/element/middleware/element_env.h"
#include "tests/support/golden.h"

namespace {

using namespace std::chrono_literals;
using pbrtest::ChildResult;
using pbrtest::ExpectGolden;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr int kRefused = 1;
constexpr int kUsage = 2;
constexpr int kUnreachable = 3;

ChildResult Cli(std::vector<std::string> args, std::string input = {}) {
  args.insert(args.begin(), PBR_CLI_BIN);
  return pbrtest::RunChild(std::move(args), std::move(input), 60s);
}

// A server process in the test's own element environment, stopped with SIGTERM at the end.
class CliE2e : public ::testing::Test {
 protected:
  void SetUp() override { StartServer(); }
  void StartServer() {
    std::string error;
    server_ = pbrtest::StartService({PBR_MGMTD_BIN}, (env_.root() / "notify").string(), &error);
    ASSERT_TRUE(server_) << error << env_.Log();
  }
  void RestartServer(int signal) {
    server_->Signal(signal);
    server_->Finish(10s);
    StartServer();
  }
  void TearDown() override {
    if (!server_) return;
    server_->Signal(SIGTERM);
    const ChildResult end = server_->Finish(10s);
    EXPECT_EQ(end.status, 0) << end.out << end.err;
  }

  std::string Show() {
    const ChildResult r = Cli({"show", "running"});
    EXPECT_EQ(r.status, 0) << r.err;
    return r.out;
  }

  std::string Running() {
    const ChildResult r = Cli({"show", "running", "--json"});
    EXPECT_EQ(r.status, 0) << r.err;
    return r.out;
  }

  std::string WriteFile(const std::string& name, const std::string& text) {
    const std::string path = (env_.root() / name).string();
    std::ofstream(path, std::ios::binary) << text;
    return path;
  }

  static void ExpectOk(const ChildResult& r) {
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
  }

  pbrtest::ElementEnv env_;
  std::unique_ptr<pbrtest::Child> server_;
};

TEST_F(CliE2e, EditsAndLoadsChangeTheRunningConfigurationAsShownAndItsTextsLoadBack) {
  ExpectOk(Cli({"set",
                "/router/pbr{7}/rule/priority",
                "10",
                "--",
                "set",
                "/router/pbr{7}/rule/description",
                "web \"front\" servers",
                "--",
                "set",
                "/router/pbr{7}/rule/match/interface{eth1}",
                "--",
                "set",
                "/router/pbr{7}/rule/match/interface{eth0}",
                "--",
                "set",
                R"(/router/pbr{7}/rule/match/interface{"q\"\\x"})",
                "--",
                "set",
                "/router/pbr{7}/rule/match/destination/ipv4-address/mask/ip",
                "10.1.2.3/16"}));
  ExpectOk(Cli({"delete", "/router/pbr{7}/rule/match/interface{eth1}"}));
  const std::string json =
      WriteFile("merge.json", R"({"pbr:router": {"pbr": [{"id": 65535, "rule": {"priority": 0,
          "match": {"source": {"ipv4-address": {"no-mask": {"ip": "0.0.0.0"}}}}}}]}})");
  ExpectOk(Cli({"load", "merge", json}));
  EXPECT_EQ(Show(),
            "router\n  pbr{7}\n    rule\n      priority 10\n"
            "      description \"web \\\"front\\\" servers\"\n      match\n"
            "        interface{eth0}\n        interface{\"q\\\"\\\\x\"}\n        destination\n"
            "          ipv4-address\n"
            "            mask\n              ip 10.1.2.3/16\n"
            "  pbr{65535}\n    rule\n      priority 0\n      match\n        source\n"
            "          ipv4-address\n            no-mask\n              ip 0.0.0.0\n");

  EXPECT_NE(Running().find(R"("q\"\\x")"), std::string::npos);  // the key q"\x

  // As set commands fed to the shell, and as XML replacing what is there (the format option
  // wins over the name), the running configuration loads back as it was.
  const std::string before = Running();
  const ChildResult set = Cli({"show", "running", "--format", "set"});
  ExpectOk(set);
  const ChildResult xml = Cli({"show", "running", "--format", "xml"});
  ExpectOk(xml);
  ExpectOk(Cli({"delete", "/router"}));
  ExpectOk(Cli({}, set.out + "commit\n"));
  EXPECT_EQ(Running(), before) << set.out;
  ExpectOk(Cli({"set", "/router/pbr{3}/rule/priority", "3"}));
  ExpectOk(Cli({"load", "replace", "--format", "xml", WriteFile("running.data", xml.out)}));
  EXPECT_EQ(Running(), before) << xml.out;

  const ChildResult status = Cli({"show", "pbr"});
  EXPECT_EQ(status.status, kRefused);
  EXPECT_EQ(status.err, "error: no daemon serves show_pbr\n");
}

// The text with the key of /router/pbr{ID} taken out.
std::string WithoutRuleKey(std::string text) {
  const size_t at = text.find("/router/pbr{");
  if (at != std::string::npos) text.erase(at + 11, text.find('}', at) - at - 10);
  return text;
}

TEST_F(CliE2e, InvalidConfigurationsAreRefusedWithPathAndReasonAndChangeNothing) {
  ExpectOk(Cli({"set", "/router/pbr{7}/rule/priority", "10"}));
  const std::string before = Show();
  const std::string rule8 = "/router/pbr{8}/rule";
  const std::string xml = WriteFile("bad.xml",
                                    "<router xmlns=\"urn:pbr-element:params:xml:ns:yang:pbr\">\n"
                                    "<pbr><id>5</id><rule><priority>x</priority></rule></pbr>\n"
                                    "</router>\n");
  const std::string cut = WriteFile("cut.json", "{\"pbr:router\": ");
  const std::string missing = (env_.root() / "nope.json").string();
  struct Case {
    std::vector<std::string> args;
    std::string where;   // the start of the message, the rule's key taken out
    std::string reason;  // part of libyang's text
  };
  // The server names a node by its data path where it exists and by its schema path where it
  // does not.
  const std::vector<Case> cases = {
      {{"set", rule8 + "/description", "no priority"},
       "/router/pbr/rule/priority",
       "Mandatory node \"priority\" instance does not exist."},
      {{"set", "/router/pbr{7}/rule/description", std::string(33, 'x')},
       "/router/pbr/rule/description",
       "at most 32 bytes"},
      {{"set", "/router/pbr{7}/rule/match/source/ipv4-address/mask/ip", "10.1.0.0/33"},
       "/router/pbr/rule/match/source/ipv4-address/mask/ip",
       "Expected an IPv4 address and a prefix length 0..32"},
      {{"set", "/router/pbr{7}/rule/action/next-hop/ip", "10.0.0.256"},
       "/router/pbr/rule/action/next-hop/ip",
       "10.0.0.256 is not an IPv4 address"},
      {{"set", "/router/pbr{7}/rule/match/destination/ipv4-address/mask/ip", "10.1.0/16"},
       "/router/pbr/rule/match/destination/ipv4-address/mask/ip",
       "for example 10.1.2.3/16"},
      {{"set", rule8 + "/priority", "1", "--", "set",
        rule8 + "/match/source/ipv4-address/no-mask/ip", "10.0.0.3", "--", "set",
        rule8 + "/match/source/ipv4-address/mask/ip", "10.0.0.0/8"},
       "/router/pbr/rule/match/source/ipv4-address",
       "Data for both cases \"mask\" and \"no-mask\" exist."},
      {{"set", "/router/pbr{70000}/rule/priority", "1"},
       "/router/pbr/id",
       "70000 is out of range 0..65535"},
      {{"set", "/router/pbr{7}/rule/colour", "red"},
       "/router/pbr/rule/colour",
       "no node \"colour\" at /router/pbr{7}/rule\n"},
      {{"delete", "/router/pbr{9}"}, "/router/pbr", "no such node"},
      // One bad operation refuses the whole commit.
      {{"set", "/router/pbr{11}/rule/priority", "1", "--", "set", rule8 + "/description", "x"},
       "/router/pbr/rule/priority",
       "Mandatory node"},
      {{"load", "merge", xml}, xml + ":2: /router/pbr/rule/priority", "Invalid type uint32 value"},
      // A truncated document that the server's parser would take for an empty configuration.
      {{"load", "replace", cut}, cut + ":1:16", "malformed JSON"},
      {{"load", "merge", missing}, missing, "cannot read: No such file"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args.back());
    const ChildResult r = Cli(c.args);
    EXPECT_EQ(r.status, kRefused) << r.err;
    EXPECT_EQ(r.out, "");
    EXPECT_THAT(WithoutRuleKey(r.err), StartsWith("error: " + c.where + ": "));
    EXPECT_THAT(r.err, HasSubstr(c.reason));
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
  }
  EXPECT_EQ(Show(), before);
}

TEST_F(CliE2e, ShellCollectsChangesInACandidateAndCommitsThemAsOne) {
  const std::string script =
      "# a script fed to the shell\n"
      "show candidate\n"
      "set /router/pbr{5}/rule/priority 50\n"
      "set /router/pbr{5}/rule/description \"from the shell\"\n"
      "set /router/pbr{5}/rule/match/interface{eth1}\n"
      "show candidate\n"
      "commit\n"
      "set /router/pbr{6}/rule/priority 60\n"
      "discard\n"
      "commit\n"
      "set /router/pbr{6}/rule/description \"no priority\"\n"
      "commit\n"
      "show candidate\n"
      "discard\n"
      "bogus\n"
      "show running\n"
      "exit\n"
      "show running\n";
  const ChildResult r = Cli({}, script);
  ExpectGolden("e2e_shell.out", r.out);
  ExpectGolden("e2e_shell.err", r.err);
  EXPECT_EQ(r.status, kUsage);  // the last failure: "bogus"
}

// An interactive pbr-cli kept open, fed command by command.
std::unique_ptr<pbrtest::Child> Shell() {
  return std::make_unique<pbrtest::Child>(std::vector<std::string>{PBR_CLI_BIN}, "", true);
}

// Sends `commands` to a shell and waits for `expect` in its output.
void Type(pbrtest::Child& shell, const std::string& commands, const std::string& expect) {
  shell.Send(commands);
  EXPECT_TRUE(shell.WaitForOutput(expect, 20s)) << shell.out() << shell.err();
}

TEST_F(CliE2e, ConcurrentCandidatesCommitDisjointRulesAndRefuseConflicts) {
  ExpectOk(Cli({"set", "/router/pbr{20}/rule/priority", "2", "--", "set",
                "/router/pbr{30}/rule/priority", "3"}));
  auto a = Shell(), b = Shell();
  Type(*a,
       "set /router/pbr{20}/rule/priority 21\nset /router/pbr{31}/rule/priority 4\n"
       "show candidate\n",
       "set /router/pbr{31}/rule/priority 4\n");
  EXPECT_THAT(a->out(), StartsWith("set /router/pbr{20}/rule/priority 21\n"));
  Type(*b, "delete /router/pbr{20}\nset /router/pbr{30}/rule/priority 33\ncommit\n", "committed");

  // A's change to rule 20 would bring it back as a priority-only rule: refused, nothing applied.
  Type(*a, "commit\n", "error: /router/pbr{20}: changed by another commit");
  EXPECT_THAT(Running(), Not(HasSubstr("\"id\": 31")));
  // Commits on different rules both go through; a delete of a rule only set in the candidate
  // takes it out again.
  Type(*a,
       "discard\nset /router/pbr{31}/rule/priority 4\nset /router/pbr{32}/rule/priority 5\n"
       "delete /router/pbr{32}\nvalidate\n",
       "valid");
  Type(*b, "set /router/pbr{30}/rule/priority 34\ncommit\n", "committed (commit 3)");
  Type(*a, "show candidate --json\ncommit comment \"rule 31\"\n", "committed");
  EXPECT_THAT(a->out(), HasSubstr(R"("path": "/router/pbr{31}/rule/priority")"));
  EXPECT_THAT(a->out(), Not(HasSubstr("pbr{32}")));
  const std::string running = Running();
  EXPECT_THAT(running, HasSubstr("\"id\": 31"));
  EXPECT_THAT(running, HasSubstr("\"priority\": 34"));
  EXPECT_THAT(running, Not(HasSubstr("\"id\": 20")));
  EXPECT_THAT(running, Not(HasSubstr("\"id\": 32")));

  // A lock refuses every other session's commit, naming its holder, until its process dies.
  Type(*b, "lock\n", "locked");
  const ChildResult refused = Cli({"set", "/router/pbr{40}/rule/priority", "1"});
  EXPECT_EQ(refused.status, kRefused);
  EXPECT_THAT(refused.err, HasSubstr("locked by session"));
  EXPECT_THAT(refused.err, HasSubstr("(user "));
  Type(*a, "set /router/pbr{41}/rule/priority 1\ncommit\n", "locked by session");
  b->Signal(SIGKILL);
  b->Finish(10s);
  ExpectOk(Cli({"set", "/router/pbr{40}/rule/priority", "1"}));
  Type(*a, "commit\n", "committed");
  EXPECT_THAT(Running(), HasSubstr("\"id\": 41"));
}

TEST_F(CliE2e, HistoryRollbackAndLoadSummariesSurviveARestart) {
  ExpectOk(Cli({"set", "/router/pbr{1}/rule/priority", "1", "--", "set",
                "/router/pbr{2}/rule/priority", "2"}));
  const std::string afterFirst = Running();
  ExpectOk(Cli({"delete", "/router/pbr{1}", "--", "set", "/router/pbr{2}/rule/priority", "22"}));
  const std::string doc =
      WriteFile("one.json", R"({"pbr:router": {"pbr": [{"id": 3, "rule": {"priority": 3}}]}})");
  const ChildResult dry = Cli({"load", "replace", doc, "--dry-run"});
  EXPECT_EQ(dry.out, "1 rules added, 0 changed, 1 deleted (dry run: nothing committed)\n");
  const ChildResult load = Cli({"load", "replace", doc});
  EXPECT_EQ(load.out, "1 rules added, 0 changed, 1 deleted\n");
  // Each commit is one line of the server's log at the default level.
  const std::string log = env_.Log();
  EXPECT_THAT(log, HasSubstr("(load): 1 added, 0 changed, 1 deleted\n"));
  EXPECT_EQ(log.find("commit 3 by"), log.rfind("commit 3 by")) << log;

  struct Case {
    std::vector<std::string> args;
    std::string out;
    std::string input = {};  // to the shell, without args
  };
  const std::vector<Case> cases = {
      {{"show", "commit", "2"}, "delete /router/pbr{1}\nset /router/pbr{2}/rule/priority 22\n"},
      {{"show", "commit", "3"}, "delete /router/pbr{2}\nset /router/pbr{3}/rule/priority 3\n"},
      {{"rollback", "1", "--dry-run"},
       "set /router/pbr{1}/rule/priority 1\nset /router/pbr{2}/rule/priority 2\n"
       "delete /router/pbr{3}\n"},
      {{"rollback", "1"}, "committed (commit 4)\n"},
      // What changes nothing is no commit: neither in the history nor in the log.
      {{"rollback", "1"}, "nothing to commit: the configuration is as it was after commit 1\n"},
      {{"set", "/router/pbr{2}/rule/priority", "2"}, ""},
      {{}, "nothing to commit\n", "set /router/pbr{2}/rule/priority 2\ncommit\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args.empty() ? c.input : c.args[0]);
    const ChildResult r = Cli(c.args, c.input);
    ExpectOk(r);
    EXPECT_EQ(r.out, c.out);
  }
  EXPECT_EQ(Running(), afterFirst);

  ASSERT_NO_FATAL_FAILURE(RestartServer(SIGTERM));
  const ChildResult list = Cli({"show", "commits", "--json"});
  ExpectOk(list);
  const auto commits = nlohmann::json::parse(list.out);
  ASSERT_EQ(commits.size(), 4u);
  EXPECT_EQ(commits[2]["client"], "load");
  EXPECT_EQ(commits[3]["comment"], "rollback to 1");
  EXPECT_FALSE(commits[0]["user"].get<std::string>().empty());
  EXPECT_EQ(Cli({"show", "commit", "9"}).status, kRefused);
  ExpectOk(Cli({}, "set /router/pbr{5}/rule/priority 5\ncommit comment \"two\\nlines\"\n"));
  EXPECT_EQ(nlohmann::json::parse(Cli({"show", "commits", "--json"}).out).back()["id"], 5);
  // One commit a line, whatever its comment holds.
  const ChildResult table = Cli({"show", "commits"});
  EXPECT_THAT(table.out, ::testing::EndsWith(" two\\nlines\n"));
  EXPECT_EQ(std::count(table.out.begin(), table.out.end(), '\n'), 6) << table.out;
}

// The rule ids the memory backend holds, once they are `want` (waits for its paced rewrite).
std::string BackendIds(const std::string& stateDir, const std::string& want) {
  std::string ids;
  for (int i = 0; i < 100 && ids != want; ++i) {
    std::this_thread::sleep_for(100ms);
    std::ifstream file(stateDir + "/pbr-manager.json");
    const auto state = nlohmann::json::parse(file, nullptr, false);
    if (!state.is_object()) continue;
    ids.clear();
    for (const auto& rule : state["rules"]) ids += std::to_string(rule["id"].get<int>()) + " ";
  }
  return ids;
}

TEST_F(CliE2e, ConfirmedCommitsNotConfirmedEndInThePreviousConfigurationEverywhere) {
  std::string error;
  auto app = pbrtest::StartService({PBR_APP_BIN}, (env_.root() / "app-notify").string(), &error);
  ASSERT_TRUE(app) << error;
  ExpectOk(Cli({"set", "/router/pbr{1}/rule/priority", "1"}));
  const std::string before = Running();
  struct Case {
    const char* what;
    std::string commands;
    std::string expect;
    bool killServer = false;
  };
  const std::string edit = "set /router/pbr{2}/rule/priority 2\n";
  const std::vector<Case> cases = {
      {"timeout", edit + "commit confirmed 1\nshow running\n", "pbr{2}"},
      {"extended, then aborted", edit + "commit confirmed 1\ncommit confirmed 60\nabort\n",
       "aborted"},
      {"server killed", edit + "commit confirmed 60\n", "unless confirmed", true},
      {"refused", "set /router/pbr{2}/rule/description x\ncommit confirmed 1\nconfirm\n",
       "no confirmed commit of this session is pending"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    auto shell = Shell();
    Type(*shell, c.commands, c.expect);
    if (c.killServer) {
      ASSERT_NO_FATAL_FAILURE(RestartServer(SIGKILL));
    }
    for (int i = 0; i < 50 && Running() != before; ++i) std::this_thread::sleep_for(100ms);
    EXPECT_EQ(Running(), before);
    EXPECT_EQ(BackendIds(env_.StateDir(), "1 "), "1 ");
  }
  // Confirmed in time, it stays.
  auto shell = Shell();
  Type(*shell, edit + "commit confirmed 1\nconfirm\n", "confirmed");
  std::this_thread::sleep_for(1500ms);
  EXPECT_EQ(BackendIds(env_.StateDir(), "1 2 "), "1 2 ");
}

TEST_F(CliE2e, AShellAcrossARestartSaysItsCandidateIsGone) {
  auto shell = Shell();
  Type(*shell, "set /router/pbr{1}/rule/priority 1\nshow candidate\n", "priority 1\n");
  ASSERT_NO_FATAL_FAILURE(RestartServer(SIGTERM));
  Type(*shell, "commit\n", "nothing of the candidate was committed");
  Type(*shell, "set /router/pbr{2}/rule/priority 2\ncommit\n", "committed");
  EXPECT_THAT(Running(), Not(HasSubstr("\"id\": 1,")));
}

// Without the fixture's server: what the CLI says when there is none or it does not answer.
TEST(CliWithoutServer, NoServerAndASilentServerAreReportedWithinTheTimeout) {
  pbrtest::ElementEnv env;
  const std::string path = env.RuntimeDir() + "/mgmt.sock";
  const ChildResult none = Cli({"show", "running"});
  EXPECT_EQ(none.status, kUnreachable);
  EXPECT_EQ(none.out, "");
  EXPECT_EQ(none.err, "error: cannot reach the management server at " + path +
                          ": No such file or directory\n");

  // A socket that takes connections into its backlog and never reads or answers.
  std::filesystem::create_directories(env.RuntimeDir());
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
  ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  ASSERT_EQ(::listen(fd, 4), 0);
  const auto start = std::chrono::steady_clock::now();
  const ChildResult r = Cli({"--timeout", "0.3", "set", "/router/pbr{1}/rule/priority", "1"});
  EXPECT_EQ(r.status, kUnreachable);
  EXPECT_EQ(r.err,
            "error: the management server did not answer within 300 ms; whether it was applied "
            "is unknown (see show commits)\n");
  EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
  // The shell reports each command and goes on.
  const ChildResult shell = Cli({"--timeout", "0.2"}, "show running\nshow pbr\n");
  EXPECT_EQ(shell.status, kUnreachable);
  EXPECT_EQ(std::count(shell.err.begin(), shell.err.end(), '\n'), 2) << shell.err;
  ::close(fd);
}

}  // namespace
