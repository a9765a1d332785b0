// Installs N rules with next hops through the kernel backend (SetEntry of every rule to the last
// kernel acknowledgement) and, in the same run, the same rules and routes with `ip -batch`, each in
// a fresh network namespace. Reports both times and their ratio.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "element/kernel/kernel_client.h"
#include "element/middleware/loop.h"
#include "platform/vqmw.h"

namespace {

using Clock = std::chrono::steady_clock;
using pbr::element::KernelClient;

int Shell(const std::string& command) {
  int status = std::system((command + " >/dev/null 2>&1").c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

in_addr Addr(uint32_t host_order) {
  return in_addr{htonl(host_order)};
}

// Rule i: priority i/2 (pairs share one, ordered by id), from 10.x.y.0/24, via one of 16 next
// hops on the namespace's link.
pbr::Entry MakeRule(uint32_t i) {
  pbr::Entry entry;
  entry.setId(static_cast<uint16_t>(i));
  entry.setPriority(i / 2);
  entry.setMatch(pbr::MatchSrcIPv4(Addr((10u << 24) | (i << 8)), Addr(0xffffff00u)));
  entry.setAction(pbr::ActionL3NextHop(Addr((10u << 24) | (200u << 16) | (2 + i % 16))));
  return entry;
}

// A namespace with a link (a veth pair) on 10.200.0.0/16, entered by the calling thread; left and
// deleted on destruction.
class Namespace {
 public:
  Namespace() {
    static int serial = 0;
    name_ = "pbrbench" + std::to_string(getpid()) + "-" + std::to_string(serial++);
    std::string in = "ip -n " + name_ + " ";
    ok_ = Shell("ip netns add " + name_) == 0 && Shell(in + "link set lo up") == 0 &&
          Shell(in + "link add d0 type veth peer name d1") == 0 &&
          Shell(in + "addr add 10.200.0.1/16 dev d0") == 0 && Shell(in + "link set d1 up") == 0 &&
          Shell(in + "link set d0 up") == 0;
    home_ = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    int fd = open(("/run/netns/" + name_).c_str(), O_RDONLY | O_CLOEXEC);
    ok_ = ok_ && home_ >= 0 && fd >= 0 && setns(fd, CLONE_NEWNET) == 0;
    if (fd >= 0) close(fd);
  }
  ~Namespace() {
    if (home_ >= 0) {
      setns(home_, CLONE_NEWNET);
      close(home_);
    }
    Shell("ip netns del " + name_);
  }
  bool ok() const { return ok_; }
  const std::string& name() const { return name_; }

 private:
  std::string name_;
  int home_ = -1;
  bool ok_ = false;
};

class Counter : public pbr::PbrStatusItf {
 public:
  Counter(vqmw_t* mw, uint32_t want) : mw_(mw), want_(want) {}
  virtual ~Counter() = default;
  void StatusUpdateCb(const uint16_t&, uint32_t status) override {
    if (status == 1 && ++installed_ == want_) vqmw::Exit(mw_, 0);
    if (status != 1) ++failed_;
  }
  uint32_t installed_ = 0;
  uint32_t failed_ = 0;

 private:
  vqmw_t* mw_;
  uint32_t want_;
};

double InstallWithBackend(uint32_t n, std::string* error) {
  Namespace ns;
  if (!ns.ok()) {
    *error = "cannot make network namespaces (needs root)";
    return 0;
  }
  vqmw_t* mw = vqmw_init("kernel-install-bench");
  if (!mw) {
    *error = "vqmw_init failed";
    return 0;
  }
  double seconds = 0;
  {
    KernelClient client(mw, nullptr, KernelClient::Options{{}, std::chrono::seconds(60)});
    Counter counter(mw, n);
    client.RegisterStatusListener(&counter);
    // Let the client read the (empty) kernel state first, as a daemon does before its framework
    // attaches.
    bool running = true;
    auto settle = vqmw::StartTimer(mw, std::chrono::milliseconds(50), [&] { running = false; });
    vqmw_loop_while_timeout(mw, &running, 0);

    auto start = Clock::now();
    for (uint32_t i = 0; i < n; ++i) client.SetEntry(static_cast<uint16_t>(i), MakeRule(i));
    vqmw_loop_while_timeout(mw, nullptr, 600000);
    seconds = std::chrono::duration<double>(Clock::now() - start).count();
    if (counter.installed_ != n || !client.Settled())
      *error = "installed " + std::to_string(counter.installed_) + " of " + std::to_string(n) +
               ", " + std::to_string(counter.failed_) + " failed";
  }
  vqmw_finish(&mw);
  return seconds;
}

double InstallWithIpBatch(uint32_t n, std::string* error) {
  Namespace ns;
  if (!ns.ok()) {
    *error = "cannot make network namespaces (needs root)";
    return 0;
  }
  std::string path = std::filesystem::temp_directory_path() / ("pbr-bench-" + ns.name());
  {
    std::ofstream batch(path);
    // The backend's layout (a table per next hop) in ip's best order: routes, then rules by
    // descending priority.
    auto table = [](uint32_t i) {
      return pbr::element::TableOf(Addr((10u << 24) | (200u << 16) | (2 + i % 16)).s_addr);
    };
    for (uint32_t i = 0; i < std::min(n, 16u); ++i)
      batch << "route add default via 10.200.0." << 2 + i << " table " << table(i) << " metric "
            << table(i) << " proto 77\n";
    for (uint32_t i = n; i-- > 0;)
      batch << "rule add pref " << pbr::element::KernelPriority(i / 2) << " from 10."
            << ((i >> 8) & 255) << "." << (i & 255) << ".0/24 table " << table(i) << " proto 77\n";
  }
  auto start = Clock::now();
  int status = Shell("ip -n " + ns.name() + " -batch " + path);
  double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  std::filesystem::remove(path);
  if (status != 0) *error = "ip -batch failed";
  return seconds;
}

void BM_InstallRules(benchmark::State& state) {
  auto n = static_cast<uint32_t>(state.range(0));
  double ours = 0, ip = 0;
  for (auto _ : state) {
    std::string error;
    ours = InstallWithBackend(n, &error);
    if (error.empty()) ip = InstallWithIpBatch(n, &error);
    if (!error.empty()) {
      state.SkipWithError(error.c_str());
      return;
    }
    state.SetIterationTime(ours);
  }
  state.counters["backend_s"] = ours;
  state.counters["ip_batch_s"] = ip;
  state.counters["ip_batch/backend"] = ip / ours;
  state.counters["us_per_rule"] = ours * 1e6 / n;
}

BENCHMARK(BM_InstallRules)
    ->Arg(1000)
    ->Arg(10000)
    ->Arg(65536)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  // A private runtime directory for the middleware's registration lock.
  std::string runtime;
  if (!std::getenv("PBR_ELEMENT_RUNTIME_DIR")) {
    std::string tmpl = std::filesystem::temp_directory_path() / "pbr-bench.XXXXXX";
    if (mkdtemp(tmpl.data())) {
      runtime = tmpl;
      setenv("PBR_ELEMENT_RUNTIME_DIR", runtime.c_str(), 1);
    }
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  if (!runtime.empty()) std::filesystem::remove_all(runtime);
  return 0;
}
