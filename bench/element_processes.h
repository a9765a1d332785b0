// The element as processes for the benchmarks that run it whole: pbr-mgmtd, pbr-app and pbr-cli
// in a private element directory (memory backend), and the helpers to time and measure them.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

namespace pbr::bench {

using Clock = std::chrono::steady_clock;

double Ms(Clock::duration d);

// Starts argv with stdout and stderr to `output` (appended), stdin from `input` when given.
pid_t Spawn(const std::vector<std::string>& argv, const std::string& output,
            const std::string& input = {});
// Its exit status, or 128 plus the signal that ended it.
int Wait(pid_t pid);
std::string Read(const std::string& path);
// A field of /proc/PID/status in MiB, for example VmHWM.
double MemoryMib(pid_t pid, const std::string& field);
// A process's CPU time (user and system) in ms.
double CpuMs(pid_t pid);

// Polls `done` for up to `limit`; false when it never held.
template <typename F>
bool WaitUntil(F done, std::chrono::seconds limit) {
  const auto end = Clock::now() + limit;
  while (!done()) {
    if (Clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

// `rules` new rules as an RFC 7951 document: rule i has priority i, ingress eth1, source
// 10.x.y.0/24 and next hop 192.0.2.1.
std::string RulesJson(int rules);

// The element's processes in a directory of their own, removed with it.
class Element {
 public:
  Element();
  ~Element();
  Element(const Element&) = delete;
  Element& operator=(const Element&) = delete;

  // Starts pbr-mgmtd and waits until it serves.
  bool StartServer();
  // Starts pbr-app and returns the framework's figures of its attachment: from sending Attach to
  // the handlers' last SetEntry, and the handlers' load alone; negative on failure.
  struct Attach {
    double total_ms = -1;
    double load_ms = -1;
  };
  Attach StartApp();
  void StopApp();
  // Runs pbr-cli; its wall time in ms, or negative when it failed.
  double Cli(std::vector<std::string> args, const std::string& input = {});
  // Writes a file into the directory; its path.
  std::string File(const std::string& name, const std::string& text);
  std::string RuntimeDir() const { return (dir_ / "run").string(); }
  pid_t mgmtd() const { return mgmtd_; }
  pid_t app() const { return app_; }

 private:
  static void Stop(pid_t& pid);
  std::filesystem::path dir_;
  pid_t mgmtd_ = -1;
  pid_t app_ = -1;
};

}  // namespace pbr::bench
