// The element end to end with 1,000 and 65,536 rules, memory backend: pbr-mgmtd, pbr-app and
// pbr-cli as processes in a private element directory. Per size it reports
//   bulk_commit_ms   `pbr-cli load replace` of every rule, new, through to the memory backend
//   bulk_mgmtd_cpu_ms  the server's CPU time in it
//   bulk_server_ms   the same load with no daemon attached: the server's share alone (and
//                    bulk_server_cpu_ms its CPU time)
//   attach_ms        a restarted pbr-app: from sending Attach to its last SetEntry (the framework's
//                    record), with load_ms the handlers' share (reading the snapshot, SetEntry)
//   commit_ms        a one-rule commit, from the CLI command to the daemon's acknowledgement
//   commit_server_ms the same with no daemon attached (median of 5 each)
//   session_commit_ms the same through the shell: its candidate edit and commit (median of 5)
//   rollback_ms      `pbr-cli rollback` of the bulk commit, through to the daemon's acknowledgement
//   show_ms          the whole operational view through `pbr-cli show pbr`
//   mgmtd_peak_mib   the server's peak resident memory; app_rss_mib pbr-app's after the attach
// The manual time of each run is attach_ms.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

double Ms(Clock::duration d) {
  return std::chrono::duration<double, std::milli>(d).count();
}

// Starts argv with stdout and stderr to `output` (appended), stdin from `input` when given.
pid_t Spawn(const std::vector<std::string>& argv, const std::string& output,
            const std::string& input = {}) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (!input.empty()) posix_spawn_file_actions_addopen(&actions, 0, input.c_str(), O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, output.c_str(), O_WRONLY | O_CREAT | O_APPEND,
                                   0644);
  posix_spawn_file_actions_adddup2(&actions, 1, 2);
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_t pid = -1;
  if (posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ) != 0) pid = -1;
  posix_spawn_file_actions_destroy(&actions);
  return pid;
}

int Wait(pid_t pid) {
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string Read(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// A field of /proc/PID/status in MiB, for example VmHWM.
double MemoryMib(pid_t pid, const std::string& field) {
  std::istringstream status(Read("/proc/" + std::to_string(pid) + "/status"));
  for (std::string line; std::getline(status, line);) {
    if (line.rfind(field + ":", 0) == 0) return std::stod(line.substr(field.size() + 1)) / 1024;
  }
  return 0;
}

// A process's CPU time (user and system) in ms.
double CpuMs(pid_t pid) {
  std::istringstream stat(Read("/proc/" + std::to_string(pid) + "/stat"));
  std::string field;
  // The command (field 2) has no spaces here; utime and stime are fields 14 and 15.
  for (int i = 1; i < 14 && stat >> field;) ++i;
  double utime = 0, stime = 0;
  stat >> utime >> stime;
  return (utime + stime) * 1000 / static_cast<double>(sysconf(_SC_CLK_TCK));
}

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

std::string RulesJson(int rules) {
  std::string json = R"({"pbr:router":{"pbr":[)";
  for (int id = 0; id < rules; ++id) {
    json += (id ? "," : "") + std::string(R"({"id":)") + std::to_string(id) +
            R"(,"rule":{"priority":)" + std::to_string(id) +
            R"(,"match":{"interface":["eth1"],"source":{"ipv4-address":{"mask":{"ip":"10.)" +
            std::to_string(id >> 8) + "." + std::to_string(id & 255) +
            R"(.0/24"}}}},"action":{"next-hop":{"ip":"192.0.2.1"}}}})";
  }
  return json + "]}}";
}

class Element {
 public:
  Element() : dir_(fs::temp_directory_path() / ("pbr-element-bench." + std::to_string(getpid()))) {
    fs::create_directories(dir_ / "run");
    fs::create_directories(dir_ / "state");
    setenv("PBR_ELEMENT_RUNTIME_DIR", (dir_ / "run").c_str(), 1);
    setenv("PBR_ELEMENT_STATE_DIR", (dir_ / "state").c_str(), 1);
    setenv("PBR_ELEMENT_BACKEND", "memory", 1);
    setenv("PBR_ELEMENT_TRACE", "pbr-app=40", 1);  // the framework's info records only
  }
  ~Element() {
    Stop(app_);
    Stop(mgmtd_);
    fs::remove_all(dir_);
  }

  bool StartServer() {
    setenv("PBR_ELEMENT_LOG", (dir_ / "mgmtd.log").c_str(), 1);
    mgmtd_ = Spawn({PBR_MGMTD_BIN}, (dir_ / "mgmtd.out").string());
    return WaitUntil(
        [&] { return Read((dir_ / "mgmtd.log").string()).find("serving") != std::string::npos; },
        std::chrono::seconds(30));
  }
  // Starts pbr-app and returns the framework's figures of its attachment: from sending Attach to
  // the handlers' last SetEntry, and the handlers' load alone; negative on failure.
  struct Attach {
    double total_ms = -1;
    double load_ms = -1;
  };
  Attach StartApp() {
    const std::string log = (dir_ / "app.log").string();
    fs::remove(log);
    setenv("PBR_ELEMENT_LOG", log.c_str(), 1);
    app_ = Spawn({PBR_APP_BIN}, (dir_ / "app.out").string());
    const std::string marker = "initial configuration read and applied in ";
    const std::string after = " ms, ";
    std::string text;
    if (!WaitUntil([&] { return (text = Read(log)).find(" after attaching") != std::string::npos; },
                   std::chrono::seconds(120))) {
      return {};
    }
    const size_t at = text.find(marker) + marker.size();
    Attach figures;
    figures.load_ms = std::stod(text.substr(at));
    figures.total_ms = std::stod(text.substr(text.find(after, at) + after.size()));
    return figures;
  }
  void StopApp() { Stop(app_); }
  // Runs pbr-cli; its wall time in ms, or negative when it failed.
  double Cli(std::vector<std::string> args, const std::string& input = {}) {
    args.insert(args.begin(), {PBR_CLI_BIN, "--timeout", "300"});
    const auto start = Clock::now();
    const int status = Wait(Spawn(args, (dir_ / "cli.out").string(), input));
    return status == 0 ? Ms(Clock::now() - start) : -1;
  }
  std::string File(const std::string& name, const std::string& text) {
    std::ofstream((dir_ / name).string()) << text;
    return (dir_ / name).string();
  }
  pid_t mgmtd() const { return mgmtd_; }
  pid_t app() const { return app_; }

 private:
  static void Stop(pid_t& pid) {
    if (pid <= 0) return;
    kill(pid, SIGTERM);
    Wait(pid);
    pid = -1;
  }
  fs::path dir_;
  pid_t mgmtd_ = -1;
  pid_t app_ = -1;
};

void ElementEndToEnd(benchmark::State& state) {
  const int rules = static_cast<int>(state.range(0));
  for (auto _ : state) {
    Element element;
    if (!element.StartServer()) return state.SkipWithError("pbr-mgmtd did not start");
    const std::string file = element.File("rules.json", RulesJson(rules));
    const std::string empty = element.File("empty.json", "{}");
    // The server's share: the same load with nobody subscribed, then taken back.
    double cpu = CpuMs(element.mgmtd());
    const double bulkServer = element.Cli({"load", "replace", file});
    const double bulkServerCpu = CpuMs(element.mgmtd()) - cpu;
    if (bulkServer < 0 || element.Cli({"load", "replace", empty}) < 0) {
      return state.SkipWithError("the bulk load without a daemon failed");
    }
    if (element.StartApp().total_ms < 0) return state.SkipWithError("pbr-app did not attach");
    cpu = CpuMs(element.mgmtd());
    const double bulk = element.Cli({"load", "replace", file});
    const double bulkCpu = CpuMs(element.mgmtd()) - cpu;
    if (bulk < 0) return state.SkipWithError("the bulk load failed");

    // One-rule commits, the median of 5.
    int priority = 100;
    auto commit = [&] {
      std::vector<double> times;
      for (int i = 0; i < 5; ++i) {
        times.push_back(
            element.Cli({"set", "/router/pbr{" + std::to_string(rules / 2) + "}/rule/priority",
                         std::to_string(priority++)}));
      }
      std::sort(times.begin(), times.end());
      return times[times.size() / 2];
    };
    element.StopApp();
    const double commitServer = commit();
    const Element::Attach figures = element.StartApp();
    const double attach = figures.total_ms;
    if (attach < 0) return state.SkipWithError("pbr-app did not attach again");
    const double commitApp = commit();
    std::vector<double> sessionTimes;
    for (int i = 0; i < 5; ++i) {
      const std::string script = element.File(
          "session.txt", "set /router/pbr{" + std::to_string(rules / 2) + "}/rule/priority " +
                             std::to_string(priority++) + "\ncommit\n");
      sessionTimes.push_back(element.Cli({}, script));
    }
    std::sort(sessionTimes.begin(), sessionTimes.end());
    const double show = element.Cli({"show", "pbr"});
    // Commit 2 emptied the configuration before the bulk commit (3): back to it.
    const double rollback = element.Cli({"rollback", "2"});

    state.SetIterationTime(attach / 1000);
    state.counters["bulk_commit_ms"] = bulk;
    state.counters["bulk_mgmtd_cpu_ms"] = bulkCpu;
    state.counters["bulk_server_ms"] = bulkServer;
    state.counters["bulk_server_cpu_ms"] = bulkServerCpu;
    state.counters["attach_ms"] = attach;
    state.counters["attach_us_per_rule"] = attach * 1000 / rules;
    state.counters["load_ms"] = figures.load_ms;
    state.counters["commit_ms"] = commitApp;
    state.counters["commit_server_ms"] = commitServer;
    state.counters["session_commit_ms"] = sessionTimes[2];
    state.counters["rollback_ms"] = rollback;
    state.counters["show_ms"] = show;
    state.counters["mgmtd_peak_mib"] = MemoryMib(element.mgmtd(), "VmHWM");
    state.counters["app_rss_mib"] = MemoryMib(element.app(), "VmRSS");
  }
}

BENCHMARK(ElementEndToEnd)
    ->Arg(1000)
    ->Arg(65536)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
