// The middleware loop through its public interface: what runs, in which order, and how it ends.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

#include "element/middleware/loop.h"
#include "platform/vqmw.h"
#include "tests/element/middleware/element_env.h"

namespace {

using namespace std::chrono_literals;

class LoopTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(mw_, nullptr); }
  void TearDown() override { vqmw_finish(&mw_); }

  // Runs the loop until something ends it, failing the test after 5 s.
  int Run() {
    bool running = true;
    auto guard = vqmw::StartTimer(mw_, 5s, [] { ADD_FAILURE() << "the loop did not end"; });
    return vqmw_loop_while_timeout(mw_, &running, 0);
  }

  pbrtest::ElementEnv env_;
  vqmw_t* mw_ = vqmw_init("loop-test");
  std::vector<std::string> seen_;
};

struct Pipe {
  Pipe() { EXPECT_EQ(pipe2(fds, O_NONBLOCK | O_CLOEXEC), 0); }
  ~Pipe() {
    close(fds[0]);
    close(fds[1]);
  }
  int fds[2];
};

TEST_F(LoopTest, RunsDeferredTimerAndFdCallbacksInOrder) {
  Pipe p;
  int ends = 0;
  const auto end = [&] {
    if (++ends == 2) vqmw::Exit(mw_, 0);
  };
  auto reader = vqmw::WatchFd(mw_, p.fds[0], EPOLLIN, [&](uint32_t revents) {
    EXPECT_TRUE(revents & EPOLLIN);
    char c;
    EXPECT_EQ(read(p.fds[0], &c, 1), 1);
    // Deferred from inside a callback: runs once this callback has returned.
    vqmw::Defer(mw_, [&] {
      seen_.push_back("deferred by fd");
      end();
    });
    seen_.push_back("fd");
  });
  auto late = vqmw::StartTimer(mw_, 30ms, [&] {
    seen_.push_back("timer 30ms");
    end();
  });
  auto early = vqmw::StartTimer(mw_, 1ms, [&] {
    seen_.push_back("timer 1ms");
    EXPECT_EQ(write(p.fds[1], "x", 1), 1);
  });
  vqmw::Defer(mw_, [&] { seen_.push_back("deferred 1"); });
  vqmw::Defer(mw_, [&] { seen_.push_back("deferred 2"); });

  EXPECT_EQ(Run(), 0);
  // A machine stalled past 30 ms may see the late timer and the fd ready at once, in either order.
  if (seen_.size() == 6 && seen_[3] == "timer 30ms") std::rotate(&seen_[3], &seen_[4], &seen_[6]);
  EXPECT_EQ(seen_, (std::vector<std::string>{"deferred 1", "deferred 2", "timer 1ms", "fd",
                                             "deferred by fd", "timer 30ms"}));
}

TEST_F(LoopTest, ChangedFdEventsTakeEffect) {
  int sv[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, sv), 0);
  std::unique_ptr<vqmw::Source> watch;
  // Nothing to read: only the added EPOLLOUT can wake the watch.
  watch = vqmw::WatchFd(mw_, sv[0], EPOLLIN, [&](uint32_t revents) {
    EXPECT_EQ(revents & EPOLLIN, 0u);
    EXPECT_TRUE(revents & EPOLLOUT);
    seen_.push_back("writable");
    vqmw::Exit(mw_, 0);
  });
  auto timer = vqmw::StartTimer(mw_, 5ms, [&] {
    seen_.push_back("timer");
    vqmw::SetFdEvents(*watch, EPOLLIN | EPOLLOUT);
  });
  EXPECT_EQ(Run(), 0);
  EXPECT_EQ(seen_, (std::vector<std::string>{"timer", "writable"}));
  close(sv[0]);
  close(sv[1]);
}

TEST_F(LoopTest, SourcesCanBeDestroyedAnytime) {
  // A handle destroyed inside its own callback, and one destroyed before it fires.
  std::unique_ptr<vqmw::Source> self;
  std::string captured = "still here";
  self = vqmw::StartTimer(mw_, 1ms, [&, captured] {
    self.reset();
    seen_.push_back(captured);
  });
  auto cancelled = vqmw::StartTimer(mw_, 2ms, [&] { seen_.push_back("cancelled"); });
  cancelled.reset();
  auto end = vqmw::StartTimer(mw_, 10ms, [&] { vqmw::Exit(mw_, 0); });
  EXPECT_EQ(Run(), 0);
  EXPECT_EQ(seen_, std::vector<std::string>{"still here"});
}

class LoopSignalTest : public LoopTest, public ::testing::WithParamInterface<int> {};

TEST_P(LoopSignalTest, SignalEndsTheLoopNormally) {
  auto timer = vqmw::StartTimer(mw_, 1ms, [] { kill(getpid(), GetParam()); });
  auto never = vqmw::StartTimer(mw_, 2s, [&] { seen_.push_back("not ended"); });
  EXPECT_EQ(Run(), 0);
  EXPECT_TRUE(seen_.empty());
  EXPECT_NE(env_.Log().find("received, ending the loop"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(TermAndInt, LoopSignalTest, ::testing::Values(SIGTERM, SIGINT));

// As logrotate does it: the file is renamed, SIGHUP makes the process write to a new one.
TEST_F(LoopTest, SighupReopensTheLogAndTheLoopRunsOn) {
  const std::string rotated = env_.LogPath() + ".1";
  ASSERT_EQ(rename(env_.LogPath().c_str(), rotated.c_str()), 0);
  auto hup = vqmw::StartTimer(mw_, 1ms, [] { kill(getpid(), SIGHUP); });
  auto later = vqmw::StartTimer(mw_, 100ms, [&] {
    seen_.push_back("still running");
    vqmw::Exit(mw_, 0);
  });
  EXPECT_EQ(Run(), 0);
  EXPECT_EQ(seen_, std::vector<std::string>{"still running"});
  EXPECT_NE(pbrtest::ElementEnv::Read(rotated).find("SIGHUP received"), std::string::npos);
  EXPECT_NE(env_.Log().find("loop-test: log reopened"), std::string::npos);
}

TEST_F(LoopTest, EndsAsToldAndRunsWhatIsLeftOnTheNextRun) {
  vqmw::Defer(mw_, [&] {
    seen_.push_back("first");
    vqmw::Exit(mw_, 3);
    vqmw::Exit(mw_, 4);  // the first request decides
  });
  vqmw::Defer(mw_, [&] { seen_.push_back("second"); });
  EXPECT_EQ(Run(), 3);
  EXPECT_EQ(seen_, std::vector<std::string>{"first"});

  // A positive timeout ends the loop normally after that many milliseconds.
  bool running = true;
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(vqmw_loop_while_timeout(mw_, &running, 20), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 20ms);
  EXPECT_EQ(seen_, (std::vector<std::string>{"first", "second"}));

  // So does a callback clearing the caller's flag.
  auto stop = vqmw::StartTimer(mw_, 1ms, [&] { running = false; });
  EXPECT_EQ(vqmw_loop_while_timeout(mw_, &running, 0), 0);
}

TEST_F(LoopTest, ExceptionFromACallbackLeavesTheLoop) {
  vqmw::Defer(mw_, [] { throw std::runtime_error("boom"); });
  vqmw::Defer(mw_, [&] { seen_.push_back("after the throw"); });
  bool running = true;
  EXPECT_THROW(vqmw_loop_while_timeout(mw_, &running, 0), std::runtime_error);
  EXPECT_TRUE(seen_.empty());

  // Any thrown value, not only standard exceptions; the loop stays usable afterwards.
  auto timer = vqmw::StartTimer(mw_, 1ms, [] { throw 42; });
  EXPECT_THROW(vqmw_loop_while_timeout(mw_, &running, 0), int);
  EXPECT_EQ(vqmw_loop_while_timeout(mw_, &running, 1), 0);
  EXPECT_EQ(seen_, std::vector<std::string>{"after the throw"});
}

TEST_F(LoopTest, FailureOfTheLoopItselfIsNonZero) {
  bool running = true;
  EXPECT_NE(vqmw_loop_while_timeout(nullptr, &running, 1), 0);

  // sd-event refuses to run a loop inherited across fork.
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) _exit(vqmw_loop_while_timeout(mw_, &running, 1000) != 0 ? 0 : 1);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0) << "the child's loop ran instead of failing";
}

}  // namespace
