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
using ::testing::Not;
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

  void ExpectOk(const ChildResult& r) {
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    EXPECT_FALSE(r.timedOut);
  }

  pbrtest::ElementEnv env_;
  std::unique_ptr<pbrtest::Child> server_;
};

// The text with the key of /router/pbr{ID} taken out.
std::string WithoutRuleKey(std::string text) {
  const size_t at = text.find("/router/pbr{");
  if (at != std::string::npos) text.erase(at + 11, text.find('}', at) - at - 10);
  return text;
}

const std::vector<std::string> kRule7 = {
    "set",
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
    "/router/pbr{7}/rule/match/source/ipv4-address/mask/ip",
    "10.1.2.3/16",
    "--",
    "set",
    "/router/pbr{7}/rule/match/destination/ipv4-address/no-mask/ip",
    "192.168.2.1",
    "--",
    "set",
    "/router/pbr{7}/rule/action/next-hop/ip",
    "10.0.0.1"};

TEST_F(CliE2e, CommittedRulesShowInTheRunningConfiguration) {
  ExpectOk(Cli(kRule7));
  ExpectOk(Cli({"set", "/router/pbr{3}/rule/priority", "5"}));
  ExpectOk(Cli({"set", "/router/pbr{65535}/rule/priority", "0", "--", "set",
                "/router/pbr{65535}/rule/match/source/ipv4-address/mask/ip", "0.0.0.0/0"}));

  const ChildResult tree = Cli({"show", "running"});
  ExpectOk(tree);
  ExpectGolden("e2e_running.tree", tree.out);
  const ChildResult json = Cli({"show", "running", "--json"});
  ExpectOk(json);
  ExpectGolden("e2e_running.json", json.out);

  // A leaf, a leaf-list entry and a whole rule go; the rest stays.
  ExpectOk(Cli({"delete", "/router/pbr{7}/rule/description", "--", "delete",
                "/router/pbr{7}/rule/match/interface{eth0}", "--", "delete", "/router/pbr{3}"}));
  const ChildResult after = Cli({"show", "running"});
  ExpectOk(after);
  EXPECT_THAT(after.out, Not(HasSubstr("description")));
  EXPECT_THAT(after.out, Not(HasSubstr("pbr{3}")));
  EXPECT_THAT(after.out, Not(HasSubstr("interface{eth0}")));
  EXPECT_THAT(after.out, HasSubstr("interface{eth1}"));
  EXPECT_THAT(after.out, HasSubstr("pbr{65535}"));

  const ChildResult status = Cli({"show", "pbr"});
  EXPECT_EQ(status.status, kRefused);
  EXPECT_EQ(status.err, "error: no daemon serves show_pbr\n");
}

TEST_F(CliE2e, InvalidConfigurationsAreRefusedWithPathAndReasonAndChangeNothing) {
  ExpectOk(Cli(kRule7));
  const std::string before = Running();
  const std::string rule8 = "/router/pbr{8}/rule";
  struct Case {
    const char* what;
    std::vector<std::string> args;
    std::string path;    // as printed
    std::string reason;  // part of libyang's text
  };
  // The server names a node by its data path where it exists and by its schema path, without
  // the rule's key, where it does not; paths are compared without the key.
  const std::vector<Case> cases = {
      {"missing priority",
       {"set", rule8 + "/description", "no priority"},
       "/router/pbr/rule/priority",
       "Mandatory node \"priority\" instance does not exist."},
      {"33-character description",
       {"set", "/router/pbr{7}/rule/description", std::string(33, 'x')},
       "/router/pbr/rule/description",
       "at most 32 bytes"},
      {"prefix length 33",
       {"set", "/router/pbr{7}/rule/match/source/ipv4-address/mask/ip", "10.1.0.0/33"},
       "/router/pbr/rule/match/source/ipv4-address/mask/ip",
       "Expected an IPv4 address and a prefix length 0..32"},
      {"bad host address",
       {"set", "/router/pbr{7}/rule/action/next-hop/ip", "10.0.0.256"},
       "/router/pbr/rule/action/next-hop/ip",
       "10.0.0.256 is not an IPv4 address"},
      {"bad masked address",
       {"set", "/router/pbr{7}/rule/match/destination/ipv4-address/mask/ip", "10.1.0/16"},
       "/router/pbr/rule/match/destination/ipv4-address/mask/ip",
       "for example 10.1.2.3/16"},
      {"both choice cases in one commit",
       {"set", rule8 + "/priority", "1", "--", "set",
        rule8 + "/match/source/ipv4-address/no-mask/ip", "10.0.0.3", "--", "set",
        rule8 + "/match/source/ipv4-address/mask/ip", "10.0.0.0/8"},
       "/router/pbr/rule/match/source/ipv4-address",
       "Data for both cases \"mask\" and \"no-mask\" exist."},
      {"id 70000",
       {"set", "/router/pbr{70000}/rule/priority", "1"},
       "/router/pbr/id",
       "70000 is out of range 0..65535"},
      {"unknown node",
       {"set", "/router/pbr{7}/rule/colour", "red"},
       "/router/pbr/rule/colour",
       "no node \"colour\""},
      {"delete of nothing", {"delete", "/router/pbr{9}"}, "/router/pbr", "no such node"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const ChildResult r = Cli(c.args);
    EXPECT_EQ(r.status, kRefused) << r.err;
    EXPECT_EQ(r.out, "");
    EXPECT_THAT(WithoutRuleKey(r.err), StartsWith("error: " + c.path + ": "));
    EXPECT_THAT(r.err, HasSubstr(c.reason));
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
  }

  // Malformed JSON, including a truncated document that the server's parser would take for an
  // empty one and so, with replace, for an empty configuration.
  for (const std::string& text : {std::string("{\"pbr:router\": {\"pbr\": [{\"id\": 9}\n"),
                                  std::string("{\"pbr:router\": ")}) {
    const std::string file = WriteFile("malformed.json", text);
    const ChildResult load = Cli({"load", "replace", file});
    EXPECT_EQ(load.status, kRefused);
    EXPECT_THAT(load.err, StartsWith("error: " + file + ":"));
    EXPECT_THAT(load.err, HasSubstr("malformed JSON"));
  }
  const std::string both = WriteFile(
      "both.json",
      R"({"pbr:router": {"pbr": [{"id": 9, "rule": {"priority": 10, "match": {"destination": )"
      R"({"ipv4-address": {"mask": {"ip": "10.9.0.0/16"}, "no-mask": {"ip": "10.9.0.1"}}}}}}]}})");
  const ChildResult bothCases = Cli({"load", "merge", both});
  EXPECT_EQ(bothCases.status, kRefused);
  EXPECT_THAT(bothCases.err, HasSubstr("Data for both cases"));

  // The server's own refusal of a document names the file, the line and the node.
  const std::string xml = WriteFile("bad.xml",
                                    "<router xmlns=\"urn:pbr-element:params:xml:ns:yang:pbr\">\n"
                                    "<pbr><id>5</id><rule><priority>x</priority></rule></pbr>\n"
                                    "</router>\n");
  const ChildResult badXml = Cli({"load", "merge", xml});
  EXPECT_EQ(badXml.status, kRefused);
  EXPECT_THAT(badXml.err, StartsWith("error: " + xml + ":2: /router/pbr{5}/rule/priority: "));
  EXPECT_THAT(badXml.err, HasSubstr("Invalid type uint32 value \"x\""));

  // One bad operation refuses the whole commit.
  const ChildResult mixed = Cli({"set", "/router/pbr{11}/rule/priority", "1", "--", "set",
                                 "/router/pbr{12}/rule/description", "no priority"});
  EXPECT_EQ(mixed.status, kRefused);

  EXPECT_EQ(Running(), before);
}

TEST_F(CliE2e, LoadsMergeIntoOrReplaceTheConfigurationFromJsonAndXml) {
  ExpectOk(Cli({"set", "/router/pbr{1}/rule/priority", "1"}));
  const std::string json =
      WriteFile("two.json", R"({"pbr:router": {"pbr": [{"id": 2, "rule": {"priority": 2}}]}})");
  ExpectOk(Cli({"load", "merge", json}));
  EXPECT_THAT(Running(), HasSubstr("\"id\": 1"));
  EXPECT_THAT(Running(), HasSubstr("\"id\": 2"));

  const std::string xml = WriteFile(
      "three.xml",
      R"(<router xmlns="urn:pbr-element:params:xml:ns:yang:pbr"><pbr><id>3</id><rule>)"
      R"(<priority>3</priority><match><interface>eth3</interface></match></rule></pbr></router>)");
  ExpectOk(Cli({"load", "replace", xml}));
  const ChildResult tree = Cli({"show", "running"});
  EXPECT_EQ(tree.out,
            "router\n  pbr{3}\n    rule\n      priority 3\n      match\n"
            "        interface{eth3}\n");

  // The format option wins over the name.
  const std::string named = WriteFile("four.data", R"({"pbr:router": {"pbr": [{"id": 4,)"
                                                   R"( "rule": {"priority": 4}}]}})");
  ExpectOk(Cli({"load", "merge", "--format", "json", named}));
  EXPECT_THAT(Running(), HasSubstr("\"id\": 4"));

  const ChildResult missing = Cli({"load", "merge", (env_.root() / "nope.json").string()});
  EXPECT_EQ(missing.status, kRefused);
  EXPECT_THAT(missing.err, HasSubstr("nope.json: cannot read: No such file"));
  EXPECT_EQ(Cli({"load", "merge", named}).status, kUsage);
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

TEST_F(CliE2e, RunningConfigurationAsSetCommandsOrXmlLoadsBack) {
  ExpectOk(Cli(kRule7));
  ExpectOk(Cli({"set", "/router/pbr{65535}/rule/priority", "0", "--", "set",
                "/router/pbr{65535}/rule/match/source/ipv4-address/no-mask/ip", "0.0.0.0"}));
  const std::string before = Running();
  const ChildResult set = Cli({"show", "running", "--format", "set"});
  ExpectOk(set);
  const ChildResult xml = Cli({"show", "running", "--format", "xml"});
  ExpectOk(xml);

  ExpectOk(Cli({"delete", "/router"}));
  ExpectOk(Cli({}, set.out + "commit\n"));
  EXPECT_EQ(Running(), before) << set.out;

  ExpectOk(Cli({"delete", "/router"}));
  ExpectOk(Cli({"load", "replace", WriteFile("running.xml", xml.out)}));
  EXPECT_EQ(Running(), before) << xml.out;
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
