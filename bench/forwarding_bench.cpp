// Forwarding cost per packet with 0 to 65,536 rules installed, for the kernel and classifier
// backends. Three namespaces: a source, the router and a sink, joined by veth pairs. The rules are
// installed through the backend's client in the router; then one thread in the source sends small
// UDP packets as fast as it can for a fixed time, from an address that matches the first rule,
// the last rule or none, and the router's egress veth counts what it forwarded. A variant puts a
// rule without next hop just before the last one, for the packets whose best rule looks up main.
//
// A veth hands a packet to its peer in the sending CPU's softirq, so the source's stack, the
// router's receive, classification, route lookup and forwarding, and the sink's drop all run on
// the sender's core: the figure is the cost of one packet's whole path on one core, of which the
// router's rule evaluation is the part that changes with the rule count.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "element/classifier/classifier_client.h"
#include "element/kernel/kernel_client.h"
#include "element/middleware/loop.h"
#include "platform/vqmw.h"

namespace {

using Clock = std::chrono::steady_clock;
using pbr::element::ClassifierClient;
using pbr::element::KernelClient;

constexpr const char* kNextHop = "10.0.2.2";

int Shell(const std::string& command) {
  int status = std::system((command + " >/dev/null 2>&1").c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string Output(const std::string& command) {
  std::string out;
  if (FILE* p = popen(command.c_str(), "r")) {
    char buf[256];
    while (fgets(buf, sizeof buf, p)) out += buf;
    pclose(p);
  }
  return out;
}

// The variant's rule without next hop: to 10.9.9.16/30, looking up main, which routes
// 10.9.9.17 (to the sink) and not 10.9.9.18, so that those packets go on to the last rule.
constexpr const char* kMainRouted = "10.9.9.17";
constexpr const char* kMainUnrouted = "10.9.9.18";

// Rule i: priority i/2 (pairs share one, ordered by id), from 100.x.y.0/24, via the sink; or
// the variant's rule without next hop.
pbr::Entry MakeRule(uint32_t i, bool without_hop = false) {
  pbr::Entry entry;
  entry.setId(static_cast<uint16_t>(i));
  entry.setPriority(i / 2);
  if (without_hop) {
    entry.setMatch(pbr::MatchDstIPv4(in_addr{htonl(0x0a090910u)}, in_addr{htonl(0xfffffffcu)}));
    return entry;
  }
  entry.setMatch(
      pbr::MatchSrcIPv4(in_addr{htonl((100u << 24) | (i << 8))}, in_addr{htonl(0xffffff00u)}));
  in_addr hop{};
  inet_pton(AF_INET, kNextHop, &hop);
  entry.setAction(pbr::ActionL3NextHop(hop));
  return entry;
}

std::string SourceOf(uint32_t rule) {
  return "100." + std::to_string((rule >> 8) & 255) + "." + std::to_string(rule & 255) + ".1";
}
constexpr const char* kUnmatchedSource = "198.18.0.1";

int EnterNamespace(const std::string& name) {
  int fd = open(("/run/netns/" + name).c_str(), O_RDONLY | O_CLOEXEC);
  int rc = fd >= 0 ? setns(fd, CLONE_NEWNET) : -1;
  if (fd >= 0) close(fd);
  return rc;
}

// Source (a) -- va|ra -- router (r) -- rb|vb -- sink (b). The router forwards 10.9.9.9 to the
// sink's address in main; the sink's address has a permanent neighbour entry with a MAC that is
// not the sink's, so the sink drops every packet at its link layer, the cheapest place. The
// calling thread enters the router; it is left and everything deleted on destruction.
class TestBed {
 public:
  explicit TestBed(uint32_t last_rule) {
    static int serial = 0;
    std::string base = "pbrfwd" + std::to_string(getpid()) + "-" + std::to_string(serial++);
    a_ = base + "a", r_ = base + "r", b_ = base + "b";
    std::string a = "ip -n " + a_ + " ", r = "ip -n " + r_ + " ", b = "ip -n " + b_ + " ";
    std::string r_exec = "ip netns exec " + r_ + " ";
    std::vector<std::string> commands = {
        "ip netns add " + a_,
        "ip netns add " + r_,
        "ip netns add " + b_,
        r + "link add ra type veth peer name va netns " + a_,
        r + "link add rb type veth peer name vb netns " + b_,
        a + "link set lo up",
        r + "link set lo up",
        b + "link set lo up",
        a + "addr add 10.0.1.2/24 dev va",
        a + "addr add " + SourceOf(0) + "/32 dev va",
        a + "addr add " + std::string(kUnmatchedSource) + "/32 dev va",
        r + "addr add 10.0.1.1/24 dev ra",
        r + "addr add 10.0.2.1/24 dev rb",
        b + "addr add " + std::string(kNextHop) + "/24 dev vb",
        a + "link set va up",
        r + "link set ra up",
        r + "link set rb up",
        b + "link set vb up",
        a + "route add default via 10.0.1.1",
        r + "neigh replace " + kNextHop + " lladdr 02:00:00:00:00:99 dev rb nud permanent",
        r + "route add 10.9.9.9/32 via " + kNextHop,
        r + "route add " + std::string(kMainRouted) + "/32 via " + kNextHop,
        r_exec + "sysctl -qw net.ipv4.ip_forward=1",
        r_exec + "sysctl -qw net.ipv4.conf.all.rp_filter=0",
        r_exec + "sysctl -qw net.ipv4.conf.ra.rp_filter=0"};
    if (last_rule != 0) commands.push_back(a + "addr add " + SourceOf(last_rule) + "/32 dev va");
    ok_ = true;
    for (const auto& c : commands) ok_ = ok_ && Shell(c) == 0;
    home_ = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    ok_ = ok_ && home_ >= 0 && EnterNamespace(r_) == 0;
  }
  ~TestBed() {
    if (home_ >= 0) {
      setns(home_, CLONE_NEWNET);
      close(home_);
    }
    for (const auto& n : {a_, r_, b_}) Shell("ip netns del " + n);
  }
  bool ok() const { return ok_; }

  uint64_t Forwarded() const {
    return std::strtoull(
        Output("ip netns exec " + r_ + " cat /sys/class/net/rb/statistics/tx_packets").c_str(),
        nullptr, 10);
  }

  // Sends from `source` to `destination` for `seconds` on a thread in the source namespace;
  // returns the seconds it took and the packets the router forwarded in them.
  std::pair<double, uint64_t> Blast(const std::string& source, const std::string& destination,
                                    double seconds) const {
    uint64_t before = Forwarded();
    double elapsed = 0;
    std::thread sender([&] {
      if (EnterNamespace(a_) != 0) return;
      int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
      sockaddr_in from{AF_INET, 0, {}, {}}, to{AF_INET, htons(9), {}, {}};
      inet_pton(AF_INET, source.c_str(), &from.sin_addr);
      inet_pton(AF_INET, destination.c_str(), &to.sin_addr);
      if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&from), sizeof from) != 0 ||
          connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0) {
        if (fd >= 0) close(fd);
        return;
      }
      char payload[18] = {};
      constexpr int kBatch = 32;
      iovec iov{payload, sizeof payload};
      std::vector<mmsghdr> msgs(kBatch);
      for (auto& m : msgs) m.msg_hdr = msghdr{nullptr, 0, &iov, 1, nullptr, 0, 0};
      // A first packet resolves the router's address before the clock starts.
      send(fd, payload, sizeof payload, 0);
      usleep(20000);
      auto start = Clock::now();
      auto end = start + std::chrono::duration_cast<Clock::duration>(
                             std::chrono::duration<double>(seconds));
      while (Clock::now() < end) sendmmsg(fd, msgs.data(), kBatch, 0);
      elapsed = std::chrono::duration<double>(Clock::now() - start).count();
      close(fd);
    });
    sender.join();
    return {elapsed, Forwarded() - before};
  }

 private:
  std::string a_, r_, b_;
  int home_ = -1;
  bool ok_ = false;
};

class Counter : public pbr::PbrStatusItf {
 public:
  Counter(vqmw_t* mw, uint32_t want) : mw_(mw), want_(want) {}
  virtual ~Counter() = default;
  void StatusUpdateCb(const uint16_t&, uint32_t status) override {
    if (status == 1 && ++installed_ == want_) vqmw::Exit(mw_, 0);
  }
  uint32_t installed_ = 0;

 private:
  vqmw_t* mw_;
  uint32_t want_;
};

constexpr int kRounds = 5;

// Cost per packet with no rules, per backend, for the ratios.
std::map<int, double> baseline_ns;

struct Kind {
  const char* name;
  std::string source;
  std::string destination;
};

// `main_rule`: the variant, whose rule n - 2 has no next hop and whose packets (from the last
// rule's source) have it as their best rule, with a route in main (`main`) or without one
// (`through`: on to the last rule).
template <typename Client>
void Forward(benchmark::State& state, int backend, bool main_rule = false) {
  auto n = static_cast<uint32_t>(state.range(0));
  double seconds = 1.0;
  if (const char* s = std::getenv("PBR_FWD_SECONDS")) seconds = std::atof(s);
  uint32_t last = n ? n - 1 : 0;
  for (auto _ : state) {
    TestBed bed(last);
    if (!bed.ok()) {
      state.SkipWithError("cannot make network namespaces (needs root)");
      return;
    }
    vqmw_t* mw = vqmw_init("forwarding-bench");
    if (!mw) {
      state.SkipWithError("vqmw_init failed");
      return;
    }
    {
      // A short grace: with no rules the classifier attaches its (empty) program once it ends.
      Client client(mw, nullptr, typename Client::Options{{}, std::chrono::milliseconds(100)});
      Counter counter(mw, n);
      client.RegisterStatusListener(&counter);
      bool running = true;
      auto settle = vqmw::StartTimer(mw, std::chrono::milliseconds(50), [&] { running = false; });
      vqmw_loop_while_timeout(mw, &running, 0);
      for (uint32_t i = 0; i < n; ++i)
        client.SetEntry(static_cast<uint16_t>(i), MakeRule(i, main_rule && i + 2 == n));
      if (n) vqmw_loop_while_timeout(mw, nullptr, 600000);
      running = true;
      auto attach = vqmw::StartTimer(mw, std::chrono::milliseconds(300), [&] { running = false; });
      vqmw_loop_while_timeout(mw, &running, 0);
      if (counter.installed_ != n || !client.Settled()) {
        state.SkipWithError(
            ("installed " + std::to_string(counter.installed_) + " of " + std::to_string(n))
                .c_str());
      } else {
        std::vector<Kind> kinds = {{"first", SourceOf(0), "10.9.9.9"},
                                   {"last", SourceOf(last), "10.9.9.9"},
                                   {"none", kUnmatchedSource, "10.9.9.9"}};
        if (main_rule)
          kinds = {{"main", SourceOf(last), kMainRouted},
                   {"through", SourceOf(last), kMainUnrouted}};
        double sum = 0;
        for (const auto& [kind, source, destination] : kinds) {
          // The best of five rounds: the one least disturbed by other work on the machine.
          double ns = 0;
          for (int round = 0; round < kRounds; ++round) {
            auto [elapsed, forwarded] = bed.Blast(source, destination, seconds / kRounds);
            if (forwarded == 0) continue;
            double round_ns = elapsed * 1e9 / static_cast<double>(forwarded);
            if (ns == 0 || round_ns < ns) ns = round_ns;
          }
          if (ns == 0) {
            state.SkipWithError((std::string("nothing forwarded for ") + kind).c_str());
            break;
          }
          sum += ns;
          state.counters[std::string(kind) + "_ns"] = ns;
          state.counters[std::string(kind) + "_kpps"] = 1e6 / ns;
          if (n > 0 && baseline_ns.count(backend))
            state.counters[std::string(kind) + "/0rules"] = ns / baseline_ns[backend];
        }
        // With no rules the three kinds are the same packet: their mean is the baseline.
        if (n == 0) baseline_ns[backend] = sum / static_cast<double>(kinds.size());
      }
    }
    vqmw_finish(&mw);
  }
}

void BM_ForwardKernel(benchmark::State& state) {
  Forward<KernelClient>(state, 0);
}
void BM_ForwardClassifier(benchmark::State& state) {
  Forward<ClassifierClient>(state, 1);
}
void BM_ForwardKernelMainRule(benchmark::State& state) {
  Forward<KernelClient>(state, 0, true);
}
void BM_ForwardClassifierMainRule(benchmark::State& state) {
  Forward<ClassifierClient>(state, 1, true);
}

BENCHMARK(BM_ForwardKernel)
    ->ArgName("rules")
    ->Arg(0)
    ->Arg(1000)
    ->Arg(10000)
    ->Arg(65536)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ForwardClassifier)
    ->ArgName("rules")
    ->Arg(0)
    ->Arg(1000)
    ->Arg(10000)
    ->Arg(65536)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

// After the plain runs, whose no-rule figures are the baselines.
BENCHMARK(BM_ForwardKernelMainRule)
    ->ArgName("rules")
    ->Arg(1000)
    ->Arg(65536)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ForwardClassifierMainRule)
    ->ArgName("rules")
    ->Arg(1000)
    ->Arg(65536)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

}  // namespace
