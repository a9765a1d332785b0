// Installs N rules with next hops through the kernel backend (SetEntry of every rule to the last
// kernel acknowledgement), through the classifier backend (to the last rule in its maps, the
// program attached) and, in the same run, the same rules and routes with `ip -batch`, each in a
// fresh network namespace. Reports the times and their ratios.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
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

#include "element/classifier/classifier_client.h"
#include "element/kernel/kernel_client.h"
#include "element/middleware/loop.h"
#include "platform/vqmw.h"

namespace {

using Clock = std::chrono::steady_clock;
using pbr::element::ClassifierClient;
using pbr::element::KernelClient;

std::string Output(const std::string& command) {
  std::string out;
  if (FILE* p = popen(command.c_str(), "r")) {
    char buf[256];
    while (fgets(buf, sizeof buf, p)) out += buf;
    pclose(p);
  }
  return out;
}

int Shell(const std::string& command) {
  int status = std::system((command + " >/dev/null 2>&1").c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

in_addr Addr(uint32_t host_order) {
  return in_addr{htonl(host_order)};
}

// Next hop k on the namespace's link: 10.200.0.2 and up.
uint32_t NextHop(uint32_t k) {
  return (10u << 24) | (200u << 16) | (2 + k);
}
std::string NextHopText(uint32_t k) {
  uint32_t a = NextHop(k);
  return "10.200." + std::to_string((a >> 8) & 255) + "." + std::to_string(a & 255);
}

// Rule i: priority i/2 (pairs share one, ordered by id), from 10.x.y.0/24, via one of `hops` next
// hops on the namespace's link.
pbr::Entry MakeRule(uint32_t i, uint32_t hops = 16) {
  pbr::Entry entry;
  entry.setId(static_cast<uint16_t>(i));
  entry.setPriority(i / 2);
  entry.setMatch(pbr::MatchSrcIPv4(Addr((10u << 24) | (i << 8)), Addr(0xffffff00u)));
  entry.setAction(pbr::ActionL3NextHop(Addr(NextHop(i % hops))));
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

template <typename Client>
double InstallWithBackend(uint32_t n, std::string* error, uint32_t hops = 16) {
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
    Client client(mw, nullptr, typename Client::Options{{}, std::chrono::seconds(60)});
    Counter counter(mw, n);
    client.RegisterStatusListener(&counter);
    // Let the client read the (empty) kernel state first, as a daemon does before its framework
    // attaches.
    bool running = true;
    auto settle = vqmw::StartTimer(mw, std::chrono::milliseconds(50), [&] { running = false; });
    vqmw_loop_while_timeout(mw, &running, 0);

    auto start = Clock::now();
    for (uint32_t i = 0; i < n; ++i) client.SetEntry(static_cast<uint16_t>(i), MakeRule(i, hops));
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

// FRR's zebra and pbrd, from Debian's frr package.
constexpr const char* kFrrDir = "/usr/lib/frr";
// pbr-map sequence numbers stop at 700: a map of this many rules per ingress interface.
constexpr uint32_t kRulesPerMap = 500;

// The same rules (each ingress interface's map taking the next kRulesPerMap of them) given to
// zebra and pbrd in a namespace of their own through vtysh, timed from vtysh's start until the
// namespace holds every rule. `shared`: one nexthop-group for every rule, else a next hop each.
// Returns the seconds, or a negative value once `limit` has passed.
double InstallWithFrr(uint32_t n, bool shared, double limit, std::string* error) {
  Namespace ns;
  if (!ns.ok()) {
    *error = "cannot make network namespaces (needs root)";
    return 0;
  }
  std::string dir = std::filesystem::temp_directory_path() / ("pbr-frr-" + ns.name());
  std::filesystem::create_directories(dir);
  std::string exec = "ip netns exec " + ns.name() + " ";
  uint32_t maps = (n + kRulesPerMap - 1) / kRulesPerMap;
  bool ok = Shell("chown frr:frr " + dir) == 0;
  for (uint32_t m = 0; ok && m < maps; ++m) {
    std::string in = "ip -n " + ns.name() + " link ";
    ok = Shell(in + "add i" + std::to_string(m) + " type veth peer name j" + std::to_string(m)) ==
             0 &&
         Shell(in + "set i" + std::to_string(m) + " up") == 0 &&
         Shell(in + "set j" + std::to_string(m) + " up") == 0;
  }
  auto daemon = [&](const std::string& name) {
    std::ofstream(dir + "/" + name + ".conf");
    return Shell(exec + kFrrDir + "/" + name + " -d -f " + dir + "/" + name + ".conf -i " + dir +
                 "/" + name + ".pid -z " + dir + "/zserv.api --vty_socket " + dir + " -P 0") == 0;
  };
  ok = ok && daemon("zebra") && daemon("pbrd");
  {
    std::ofstream config(dir + "/pbr.conf");
    if (shared) config << "nexthop-group G\n nexthop " << NextHopText(0) << " d0\nexit\n";
    for (uint32_t i = 0; i < n; ++i) {
      config << "pbr-map M" << i / kRulesPerMap << " seq " << i % kRulesPerMap + 1
             << "\n match src-ip 10." << ((i >> 8) & 255) << "." << (i & 255) << ".0/24\n";
      if (shared)
        config << " set nexthop-group G\n";
      else
        config << " set nexthop " << NextHopText(i) << " d0\n";
      config << "exit\n";
    }
    for (uint32_t m = 0; m < maps; ++m)
      config << "interface i" << m << "\n pbr-policy M" << m << "\nexit\n";
  }
  double seconds = 0;
  if (ok) {
    // zebra has read the namespace's links and addresses once vtysh reaches both daemons.
    usleep(500000);
    auto start = Clock::now();
    ok = Shell("vtysh --vty_socket " + dir + " -f " + dir + "/pbr.conf") == 0;
    // The namespace's own three rules (local, main, default) besides FRR's.
    std::string count = "ip -n " + ns.name() + " rule show | wc -l";
    while (ok) {
      seconds = std::chrono::duration<double>(Clock::now() - start).count();
      if (std::stoul(Output(count)) >= n + 3) break;
      if (seconds > limit) {
        seconds = -1;
        break;
      }
      usleep(100000);
    }
  }
  if (!ok) *error = "FRR did not start or refused the configuration (see " + dir + ")";
  for (const char* name : {"pbrd", "zebra"}) {
    std::ifstream pid(dir + "/" + name + ".pid");
    long value = 0;
    if (pid >> value && value > 0) kill(static_cast<pid_t>(value), SIGTERM);
  }
  usleep(300000);
  if (ok) std::filesystem::remove_all(dir);
  return seconds;
}

// pbr-app's kernel backend against FRR on the same rules: args are the rule count and whether
// every rule shares one next hop (1) or has its own (0).
void BM_AgainstFrr(benchmark::State& state) {
  auto n = static_cast<uint32_t>(state.range(0));
  bool shared = state.range(1) != 0;
  if (access((std::string(kFrrDir) + "/pbrd").c_str(), X_OK) != 0) {
    state.SkipWithError("FRR is not installed (apt-get install frr)");
    return;
  }
  double limit = 120;
  if (const char* s = std::getenv("PBR_FRR_TIMEOUT")) limit = std::atof(s);
  double ours = 0, frr = 0;
  for (auto _ : state) {
    std::string error;
    ours = InstallWithBackend<KernelClient>(n, &error, shared ? 1 : n);
    if (error.empty()) frr = InstallWithFrr(n, shared, limit, &error);
    if (!error.empty()) {
      state.SkipWithError(error.c_str());
      return;
    }
    state.SetIterationTime(ours);
  }
  state.counters["backend_s"] = ours;
  // A negative frr_s: FRR had not installed every rule after |frr_s| seconds.
  state.counters["frr_s"] = frr < 0 ? -limit : frr;
  state.counters["frr/backend"] = (frr < 0 ? limit : frr) / ours;
}

BENCHMARK(BM_AgainstFrr)
    ->ArgNames({"rules", "shared"})
    ->Args({500, 1})
    ->Args({5000, 1})
    ->Args({10000, 1})
    ->Args({500, 0})
    ->Args({5000, 0})
    ->Args({10000, 0})
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

void BM_InstallRules(benchmark::State& state) {
  auto n = static_cast<uint32_t>(state.range(0));
  double ours = 0, classifier = 0, ip = 0;
  for (auto _ : state) {
    std::string error;
    ours = InstallWithBackend<KernelClient>(n, &error);
    if (error.empty()) classifier = InstallWithBackend<ClassifierClient>(n, &error);
    if (error.empty() && !std::getenv("PBR_BENCH_NO_IP_BATCH")) ip = InstallWithIpBatch(n, &error);
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
  state.counters["classifier_s"] = classifier;
  state.counters["classifier_us_per_rule"] = classifier * 1e6 / n;
}

BENCHMARK(BM_InstallRules)
    ->Arg(1000)
    ->Arg(10000)
    ->Arg(65536)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
