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

#include <algorithm>
#include <string>
#include <vector>

#include "bench/element_processes.h"

namespace {

using namespace pbr::bench;

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
