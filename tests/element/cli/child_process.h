// A program run by a test as a child process: its stdin fed from a string, its stdout and stderr
// collected, every wait bounded. The child inherits the test's environment (ElementEnv).
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace pbrtest {

struct ChildResult {
  int status = -1;  // exit status; 128 + signal when killed by one
  bool timedOut = false;
  std::string out;
  std::string err;
};

class Child {
 public:
  // Starts `argv` (argv[0] a path, or a name looked up on PATH); `input` is written to its stdin,
  // which is then closed unless `keepInput` is set (then Send writes more, and the destructor
  // closes it).
  Child(std::vector<std::string> argv, std::string input = {}, bool keepInput = false);
  ~Child();  // kills a child still running
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  // Collects the output until the child ends, killing it after `timeout`.
  ChildResult Finish(std::chrono::milliseconds timeout);

  // Reads output until `fd` is readable; false after `timeout` or when the child ends first.
  bool WaitReadable(int fd, std::chrono::milliseconds timeout);

  // Writes `text` to the stdin of a child started with keepInput.
  void Send(const std::string& text);
  // Reads output until `text` appears in stdout or stderr; false after `timeout`.
  bool WaitForOutput(const std::string& text, std::chrono::milliseconds timeout);

  void Signal(int signal);
  const std::string& out() const { return out_; }
  const std::string& err() const { return err_; }

 private:
  // Polls the pipes (and extraFd) once for at most `wait`; false when both pipes are closed.
  bool Pump(std::chrono::milliseconds wait, int extraFd, const std::function<void()>& onReadable);

  int pid_ = -1;
  int in_ = -1, out_fd_ = -1, err_fd_ = -1;
  std::string input_;
  size_t inputOffset_ = 0;
  bool keepInput_ = false;
  std::string out_, err_;
};

// Starts `argv` as a service manager would, with NOTIFY_SOCKET at `notifyPath`, and waits for its
// READY=1. Null, with the reason and the child's output in *error, when it ends or stays silent.
std::unique_ptr<Child> StartService(std::vector<std::string> argv, const std::string& notifyPath,
                                    std::string* error,
                                    std::chrono::milliseconds timeout = std::chrono::seconds(20));

// Runs `argv` to its end within `timeout`.
ChildResult RunChild(std::vector<std::string> argv, std::string input = {},
                     std::chrono::milliseconds timeout = std::chrono::seconds(30));

}  // namespace pbrtest
