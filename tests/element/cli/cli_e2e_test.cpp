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

#include "tests/element/cli/child_process.h"
#include "tests/element/cli/golden.h"
#include "tests/element/middleware/element_env.h"

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
  void SetUp() override {
    std::string error;
    server_ = pbrtest::StartService({PBR_MGMTD_BIN}, (env_.root() / "notify").string(), &error);
    ASSERT_TRUE(server_) << error << env_.Log();
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

TEST_F(CliE2e, EditsAndLoadsChangeTheRunningConfigurationAsShown) {
  ExpectOk(Cli({"set", "/router/pbr{7}/rule/priority", "10", "--", "set",
                "/router/pbr{7}/rule/description", "web \"front\" servers", "--", "set",
                "/router/pbr{7}/rule/match/interface{eth1}", "--", "set",
                "/router/pbr{7}/rule/match/interface{eth0}", "--", "set",
                "/router/pbr{7}/rule/match/destination/ipv4-address/mask/ip", "10.1.2.3/16"}));
  ExpectOk(Cli({"delete", "/router/pbr{7}/rule/match/interface{eth1}"}));
  const std::string json = WriteFile(
      "merge.json", R"({"pbr:router": {"pbr": [{"id": 65535, "rule": {"priority": 0}}]}})");
  ExpectOk(Cli({"load", "merge", json}));
  EXPECT_EQ(Show(),
            "router\n  pbr{7}\n    rule\n      priority 10\n"
            "      description \"web \\\"front\\\" servers\"\n      match\n"
            "        interface{eth0}\n        destination\n          ipv4-address\n"
            "            mask\n              ip 10.1.2.3/16\n"
            "  pbr{65535}\n    rule\n      priority 0\n");

  // The format option wins over the name.
  const std::string xml =
      WriteFile("three.data",
                R"(<router xmlns="urn:pbr-element:params:xml:ns:yang:pbr"><pbr><id>3</id><rule>)"
                R"(<priority>3</priority></rule></pbr></router>)");
  ExpectOk(Cli({"load", "replace", "--format", "xml", xml}));
  EXPECT_EQ(Show(), "router\n  pbr{3}\n    rule\n      priority 3\n");

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
       "Unsatisfied length"},
      {{"set", "/router/pbr{7}/rule/match/source/ipv4-address/mask/ip", "10.1.0.0/33"},
       "/router/pbr/rule/match/source/ipv4-address/mask/ip",
       "Expected an IPv4 address and a prefix length 0..32"},
      {{"set", "/router/pbr{7}/rule/action/next-hop/ip", "10.0.0.256"},
       "/router/pbr/rule/action/next-hop/ip",
       "\"10.0.0.256\" does not conform"},
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
       "out of the allowed range"},
      {{"set", "/router/pbr{7}/rule/colour", "red"},
       "/router/pbr/rule/colour",
       "no node \"colour\""},
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
  EXPECT_EQ(r.err, "error: the management server did not answer within 300 ms\n");
  EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
  // The shell reports each command and goes on.
  const ChildResult shell = Cli({"--timeout", "0.2"}, "show running\nshow pbr\n");
  EXPECT_EQ(shell.status, kUnreachable);
  EXPECT_EQ(std::count(shell.err.begin(), shell.err.end(), '\n'), 2) << shell.err;
  ::close(fd);
}

}  // namespace
