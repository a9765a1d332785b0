// The interactive shell as an operator meets it: pbr-cli on a pseudo-terminal, keys typed into
// it, what it shows read back; the management server runs as a process.
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>

#include "tests/element/cli/child_process.h"
#include "tests/element/middleware/element_env.h"

namespace {

using namespace std::chrono_literals;

// pbr-cli's shell on the master side of a pseudo-terminal.
class Terminal {
 public:
  explicit Terminal(const std::string& home) {
    pid_ = ::forkpty(&fd_, nullptr, nullptr, nullptr);
    if (pid_ == 0) {
      ::setenv("HOME", home.c_str(), 1);
      ::setenv("INPUTRC", "/dev/null", 1);
      ::setenv("TERM", "dumb", 1);
      ::execl(PBR_CLI_BIN, PBR_CLI_BIN, static_cast<char*>(nullptr));
      ::_exit(127);
    }
  }
  ~Terminal() {
    if (pid_ > 0 && !exited_) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
    if (fd_ >= 0) ::close(fd_);
  }

  void Type(const std::string& keys) {
    ASSERT_EQ(::write(fd_, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
  }

  // Reads until `text` has been shown since the last call; the output read is kept for errors.
  bool Shows(const std::string& text, std::chrono::milliseconds timeout = 10s) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
      const size_t at = screen_.find(text, seen_);
      if (at != std::string::npos) {
        seen_ = at + text.size();
        return true;
      }
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      pollfd p{fd_, POLLIN, 0};
      if (left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) <= 0) return false;
      char buffer[4096];
      const ssize_t n = ::read(fd_, buffer, sizeof buffer);
      if (n <= 0) return false;
      screen_.append(buffer, static_cast<size_t>(n));
    }
  }

  // The exit status once the shell has ended, -1 when it does not within the timeout.
  int Exit(std::chrono::milliseconds timeout = 10s) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
      int status = 0;
      Shows("\x01", 50ms);  // keep the terminal drained
      if (::waitpid(pid_, &status, WNOHANG) == pid_) {
        exited_ = true;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      }
    }
    return -1;
  }

  const std::string& screen() const { return screen_; }

 private:
  int fd_ = -1;
  pid_t pid_ = -1;
  bool exited_ = false;
  std::string screen_;
  size_t seen_ = 0;
};

TEST(ShellOnATerminal, CompletesExplainsRefusesEarlyAndKeepsChangesUntilLeavingIsConfirmed) {
  pbrtest::ElementEnv env;
  std::string error;
  auto server = pbrtest::StartService({PBR_MGMTD_BIN}, (env.root() / "notify").string(), &error);
  ASSERT_TRUE(server) << error;
  const auto cli = [](std::vector<std::string> args) {
    args.insert(args.begin(), PBR_CLI_BIN);
    return pbrtest::RunChild(std::move(args));
  };
  ASSERT_EQ(cli({"set", "/router/pbr{7}/rule/priority", "10", "--", "set",
                 "/router/pbr{7}/rule/match/interface{eth2}"})
                .status,
            0);

  Terminal shell(env.root().string());
  ASSERT_TRUE(shell.Shows("pbr> "));
  struct Step {
    const char* what;
    std::string keys;
    std::string shown;
  };
  const std::vector<Step> steps = {
      {"Tab completes a command", "sh\t", "show "},
      {"Ctrl-C clears the line and keeps the shell", "\x03", "^C\r\npbr> "},
      {"Tab completes a node", "set /router/pbr{7}/rule/pri\t", "ority "},
      {"Ctrl-C again", "\x03", "^C\r\npbr> "},
      {"Tab completes a key from the running configuration", "set /router/pbr{\t", "7}/"},
      {"? lists the next steps with their types", "rule/?", "uint32 0..4294967295, mandatory"},
      {"Ctrl-C after ?", "\x03", "^C\r\npbr> "},
      {"? lists an enumeration with the module's descriptions", "show pbr status ?",
       "failed          Programming the rule failed."},
      {"Ctrl-C once more", "\x03", "^C\r\npbr> "},
      {"a typo is refused at set", "set /router/pbr{7}/rule/priorty 5\r",
       "error: /router/pbr{7}/rule/priorty: no node \"priorty\" here; did you mean priority?"},
      {"an address is checked for what it is",
       "set /router/pbr{7}/rule/action/next-hop/ip 300.1.1.1\r",
       "next-hop/ip: 300.1.1.1 is not an IPv4 address"},
      {"a length error states the limit",
       "set /router/pbr{7}/rule/description " + std::string(33, 'x') + "\r",
       "description: at most 32 bytes"},
      // Up to the next prompt: keys typed before readline is back are echoed by the line
      // discipline, and that echo would pass for the next step's output.
      {"nothing refused reached the candidate", "show candidate\r", "no changes\r\npbr> "},
      // The next prompt, not an earlier one: Ctrl-D must reach readline, not the line discipline.
      {"a valid change is taken", "set /router/pbr{7}/rule/priority 5\r",
       "rule/priority 5\r\npbr> "},
      {"Ctrl-D asks first", "\x04", "1 uncommitted change; leave and drop it? [y/N] "},
      {"declined, the change stays", "n\rshow candidate\r", "set /router/pbr{7}/rule/priority 5"},
      {"quit asks too", "quit\r", "leave and drop it? [y/N] "},
      {"a confirmed commit", "n\rcommit confirmed 60\r", "undone in 60 s unless confirmed"},
      {"leaving undoes it: asked first", "exit\r",
       "the confirmed commit of this session is undone when it ends; leave? [y/N] "},
  };
  for (const Step& step : steps) {
    SCOPED_TRACE(step.what);
    shell.Type(step.keys);
    ASSERT_TRUE(shell.Shows(step.shown)) << shell.screen();
  }
  shell.Type("y\r");
  EXPECT_NE(shell.Exit(), -1) << shell.screen();
  EXPECT_EQ(cli({"show", "running", "--format", "set"}).out,
            "set /router/pbr{7}/rule/priority 10\nset /router/pbr{7}/rule/match/interface{eth2}\n");
  server->Signal(SIGTERM);
  EXPECT_EQ(server->Finish(10s).status, 0);
}

}  // namespace
