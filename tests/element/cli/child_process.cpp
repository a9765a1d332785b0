#include "tests/element/cli/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

extern char** environ;

namespace pbrtest {
namespace {

using Clock = std::chrono::steady_clock;

void Pipe(int fds[2]) {
  if (::pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe2 failed");
}

}  // namespace

Child::Child(std::vector<std::string> argv, std::string input, bool keepInput)
    : input_(std::move(input)), keepInput_(keepInput) {
  int in[2], out[2], err[2];
  Pipe(in);
  Pipe(out);
  Pipe(err);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
  // The test's own loop may block SIGTERM; the child starts with no signal blocked.
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attr, &none);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK);
  std::vector<char*> args;
  for (std::string& a : argv) args.push_back(a.data());
  args.push_back(nullptr);
  const int r = posix_spawnp(&pid_, args[0], &actions, &attr, args.data(), environ);
  posix_spawnattr_destroy(&attr);
  posix_spawn_file_actions_destroy(&actions);
  ::close(in[0]);
  ::close(out[1]);
  ::close(err[1]);
  in_ = in[1];
  out_fd_ = out[0];
  err_fd_ = err[0];
  if (r != 0) {
    pid_ = -1;
    throw std::runtime_error("cannot start " + argv[0]);
  }
  ::fcntl(in_, F_SETFL, O_NONBLOCK);
  if (input_.empty() && !keepInput_) {
    ::close(in_);
    in_ = -1;
  }
}

Child::~Child() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  for (int fd : {in_, out_fd_, err_fd_}) {
    if (fd >= 0) ::close(fd);
  }
}

void Child::Signal(int signal) {
  if (pid_ > 0) ::kill(pid_, signal);
}

bool Child::Pump(std::chrono::milliseconds wait, int extraFd,
                 const std::function<void()>& onReadable) {
  pollfd fds[4];
  int n = 0;
  const int outAt = out_fd_ >= 0 ? n : -1;
  if (out_fd_ >= 0) fds[n++] = {out_fd_, POLLIN, 0};
  const int errAt = err_fd_ >= 0 ? n : -1;
  if (err_fd_ >= 0) fds[n++] = {err_fd_, POLLIN, 0};
  const bool writing = in_ >= 0 && inputOffset_ < input_.size();
  const int inAt = writing ? n : -1;
  if (writing) fds[n++] = {in_, POLLOUT, 0};
  const int extraAt = extraFd >= 0 ? n : -1;
  if (extraFd >= 0) fds[n++] = {extraFd, POLLIN, 0};
  if (out_fd_ < 0 && err_fd_ < 0) return false;
  if (::poll(fds, static_cast<nfds_t>(n), static_cast<int>(wait.count())) <= 0) return true;

  const auto drain = [](int& fd, std::string& into) {
    char buffer[65536];
    const ssize_t got = ::read(fd, buffer, sizeof buffer);
    if (got > 0) {
      into.append(buffer, static_cast<size_t>(got));
    } else if (got == 0 || errno != EINTR) {
      ::close(fd);
      fd = -1;
    }
  };
  if (outAt >= 0 && fds[outAt].revents) drain(out_fd_, out_);
  if (errAt >= 0 && fds[errAt].revents) drain(err_fd_, err_);
  if (inAt >= 0 && fds[inAt].revents) {
    const ssize_t put = ::write(in_, input_.data() + inputOffset_, input_.size() - inputOffset_);
    if (put > 0) inputOffset_ += static_cast<size_t>(put);
    if (put < 0 || (inputOffset_ == input_.size() && !keepInput_)) {
      ::close(in_);
      in_ = -1;
    }
  }
  if (extraAt >= 0 && fds[extraAt].revents && onReadable) onReadable();
  return true;
}

void Child::Send(const std::string& text) {
  input_ += text;
  while (in_ >= 0 && inputOffset_ < input_.size() && Pump(std::chrono::milliseconds(100), -1, {})) {
  }
}

bool Child::WaitForOutput(const std::string& text, std::chrono::milliseconds timeout) {
  const Clock::time_point deadline = Clock::now() + timeout;
  while (out_.find(text) == std::string::npos && err_.find(text) == std::string::npos) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0 || !Pump(left, -1, {})) return false;
  }
  return true;
}

bool Child::WaitReadable(int fd, std::chrono::milliseconds timeout) {
  const Clock::time_point deadline = Clock::now() + timeout;
  bool readable = false;
  while (!readable) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0 || !Pump(left, fd, [&] { readable = true; })) return false;
  }
  return true;
}

ChildResult Child::Finish(std::chrono::milliseconds timeout) {
  ChildResult result;
  const Clock::time_point deadline = Clock::now() + timeout;
  for (;;) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) {
      result.timedOut = true;
      ::kill(pid_, SIGKILL);
      break;
    }
    if (!Pump(left, -1, {})) break;
  }
  int status = 0;
  ::waitpid(pid_, &status, 0);
  pid_ = -1;
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  result.out = out_;
  result.err = err_;
  return result;
}

std::unique_ptr<Child> StartService(std::vector<std::string> argv, const std::string& notifyPath,
                                    std::string* error, std::chrono::milliseconds timeout) {
  ::unlink(notifyPath.c_str());
  const int notify = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, notifyPath.c_str(), sizeof addr.sun_path - 1);
  if (::bind(notify, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    ::close(notify);
    *error = "cannot bind " + notifyPath;
    return nullptr;
  }
  ::setenv("NOTIFY_SOCKET", notifyPath.c_str(), 1);
  auto child = std::make_unique<Child>(std::move(argv));
  ::unsetenv("NOTIFY_SOCKET");
  bool ready = false;
  while (!ready && child->WaitReadable(notify, timeout)) {
    char buffer[256] = {};
    ready = ::recv(notify, buffer, sizeof buffer - 1, 0) > 0 && std::strstr(buffer, "READY=1");
  }
  ::close(notify);
  ::unlink(notifyPath.c_str());
  if (ready) return child;
  *error = "no readiness: " + child->out() + child->err();
  return nullptr;
}

ChildResult RunChild(std::vector<std::string> argv, std::string input,
                     std::chrono::milliseconds timeout) {
  Child child(std::move(argv), std::move(input));
  return child.Finish(timeout);
}

}  // namespace pbrtest
