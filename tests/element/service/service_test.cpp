// The element's programs as a service manager and an operator's shell meet them: the standard
// arguments of every binary, and the management server's socket over a restart.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <filesystem>

#include "tests/element/cli/child_process.h"
#include "tests/element/middleware/element_env.h"

namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;
using ::testing::StartsWith;

struct ArgumentCase {
  const char* binary;
  std::vector<std::string> args;
  int status;
  std::string out;  // what stdout starts with
  std::string err;  // what stderr holds
};

void PrintTo(const ArgumentCase& c, std::ostream* os) {
  *os << std::filesystem::path(c.binary).filename().string();
  for (const auto& a : c.args) *os << " " << a;
}

class Arguments : public ::testing::TestWithParam<ArgumentCase> {
 protected:
  pbrtest::ElementEnv env_;  // a daemon that starts instead of answering stays in here
};

// A daemon that ignored its arguments would run: the short timeout reports it.
TEST_P(Arguments, AnswerOrRefuseWithoutStarting) {
  const ArgumentCase& c = GetParam();
  std::vector<std::string> argv{c.binary};
  argv.insert(argv.end(), c.args.begin(), c.args.end());
  const pbrtest::ChildResult r = pbrtest::RunChild(argv, {}, 5s);
  ASSERT_FALSE(r.timedOut) << "started instead of answering";
  EXPECT_EQ(r.status, c.status) << r.err;
  EXPECT_THAT(r.out, StartsWith(c.out));
  EXPECT_THAT(r.err, HasSubstr(c.err));
}

std::vector<ArgumentCase> Cases() {
  std::vector<ArgumentCase> cases;
  for (const auto& [binary, name] :
       {std::pair{PBR_APP_BIN, "pbr-app"}, std::pair{PBR_MGMTD_BIN, "pbr-mgmtd"},
        std::pair{PBR_CLI_BIN, "pbr-cli"}}) {
    const std::string usage = std::string("Usage: ") + name;
    const std::string tryHelp = std::string("Try '") + name + " --help'";
    const std::string version = std::string(name) + " (pbr-app) " + PBR_VERSION + "\n";
    cases.push_back({binary, {"--help"}, 0, usage, ""});
    cases.push_back({binary, {"-h"}, 0, usage, ""});
    cases.push_back({binary, {"--version"}, 0, version, ""});
    cases.push_back({binary, {"--bogus"}, 2, "", "unrecognized option '--bogus'\n" + usage});
    cases.push_back({binary, {"--version", "extra"}, 2, "", tryHelp});
  }
  cases.push_back({PBR_APP_BIN, {"stray"}, 2, "", "pbr-app: unexpected argument 'stray'"});
  cases.push_back({PBR_MGMTD_BIN, {"-V"}, 0, "pbr-mgmtd (pbr-app) ", ""});
  return cases;
}

INSTANTIATE_TEST_SUITE_P(EveryBinary, Arguments, ::testing::ValuesIn(Cases()));

// A socket left behind refuses connections: clients that start before the next server listens
// would fail, and scripts waiting for the file would go on too early.
TEST(ManagementServer, RemovesItsSocketOnExitAndServesAgainAfterARestart) {
  pbrtest::ElementEnv env;
  const std::filesystem::path socket = env.RuntimeDir() + "/mgmt.sock";
  const std::filesystem::path netconf = env.RuntimeDir() + "/netconf.sock";
  const std::string notify = (env.root() / "notify").string();
  for (int run = 0; run < 2; ++run) {
    std::string error;
    auto server = pbrtest::StartService({PBR_MGMTD_BIN}, notify, &error);
    ASSERT_TRUE(server) << error << env.Log();
    EXPECT_EQ(pbrtest::RunChild({PBR_CLI_BIN, "show", "running"}, {}, 10s).status, 0);
    server->Signal(SIGTERM);
    EXPECT_EQ(server->Finish(10s).status, 0);
    EXPECT_FALSE(std::filesystem::exists(socket)) << "run " << run;
    EXPECT_FALSE(std::filesystem::exists(netconf)) << "run " << run;
    EXPECT_NE(env.Log().find("pbr-mgmtd: Terminated received, stopping"), std::string::npos);
  }
}

// A NETCONF endpoint or idle time that cannot be meant stops the start with the reason, rather
// than a server listening on a port the value wrapped to.
TEST(ManagementServer, RefusesToStartOnAnInvalidNetconfSetting) {
  for (const auto& [name, value] : std::vector<std::pair<std::string, std::string>>{
           {"PBR_ELEMENT_NETCONF_SSH", "127.0.0.1:99999"},
           {"PBR_ELEMENT_NETCONF_SSH", "8830"},
           {"PBR_ELEMENT_NETCONF_IDLE", "70000"}}) {
    SCOPED_TRACE(value);
    pbrtest::ElementEnv env;
    env.Set(name, value);
    const pbrtest::ChildResult r = pbrtest::RunChild({PBR_MGMTD_BIN}, {}, 10s);
    EXPECT_EQ(r.status, 1);
    EXPECT_THAT(env.Log(), HasSubstr(name + " is "));
    EXPECT_THAT(env.Log(), HasSubstr("not '" + value + "'"));
  }
}

}  // namespace
