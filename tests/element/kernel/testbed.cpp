#include "tests/element/kernel/testbed.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>

namespace pbrtest {

int Shell(const std::string& command, std::string* out) {
  const ChildResult r = RunChild({"sh", "-c", command + " 2>&1"});
  if (out) *out = r.out;
  return r.timedOut || r.status >= 128 ? -1 : r.status;
}

TestBed::TestBed() {
  static std::atomic<int> serial{0};
  prefix_ = "pbrk" + std::to_string(getpid()) + "-" + std::to_string(serial++) + "-";
  std::string script = "set -e\n";
  for (const char* role : {"r", "a", "b1", "b2"}) script += "ip netns add " + Ns(role) + "\n";
  auto in = [&](const std::string& role, const std::string& cmd) {
    script += "ip -n " + Ns(role) + " " + cmd + "\n";
  };
  auto sysctl = [&](const std::string& role, const std::string& setting) {
    script += "ip netns exec " + Ns(role) + " sysctl -qw " + setting + "\n";
  };
  in("r", "link add ra type veth peer name ar netns " + Ns("a"));
  in("r", "link add rb1 type veth peer name b1r netns " + Ns("b1"));
  in("r", "link add rb2 type veth peer name b2r netns " + Ns("b2"));
  for (const char* role : {"r", "a", "b1", "b2"}) {
    in(role, "link set lo up");
    sysctl(role, "net.ipv4.conf.all.rp_filter=0");
    sysctl(role, "net.ipv4.conf.default.rp_filter=0");
  }
  sysctl("r", "net.ipv4.ip_forward=1");
  in("r", "addr add 10.1.0.1/24 dev ra");
  in("r", "addr add 10.0.1.1/24 dev rb1");
  in("r", "addr add 10.0.2.1/24 dev rb2");
  for (const char* dev : {"ra", "rb1", "rb2"}) in("r", std::string("link set ") + dev + " up");
  in("a", "addr add 10.1.0.2/24 dev ar");
  in("a", "link set ar up");
  in("a", "route add default via 10.1.0.1");
  for (const char* b : {"b1", "b2"}) {
    std::string dev = std::string(b) + "r";
    std::string self = b[1] == '1' ? "10.0.1.2" : "10.0.2.2";
    std::string router = b[1] == '1' ? "10.0.1.1" : "10.0.2.1";
    in(b, "addr add " + self + "/24 dev " + dev);
    in(b, "addr add 10.9.9.9/32 dev lo");
    in(b, "link set " + dev + " up");
    in(b, "route add default via " + router);
  }
  in("r", "route add 10.9.9.9/32 via 10.0.1.2");
  std::string out;
  if (Shell("sh -c '" + script + "'", &out) != 0) {
    error_ = "cannot build the network namespaces (needs root and iproute2): " + out;
    return;
  }
  home_ns_ = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
  int r_ns = open(("/run/netns/" + Ns("r")).c_str(), O_RDONLY | O_CLOEXEC);
  if (home_ns_ < 0 || r_ns < 0 || setns(r_ns, CLONE_NEWNET) != 0) {
    error_ = "cannot enter namespace " + Ns("r");
    if (r_ns >= 0) close(r_ns);
    return;
  }
  close(r_ns);
  ok_ = true;
}

TestBed::~TestBed() {
  if (home_ns_ >= 0) {
    setns(home_ns_, CLONE_NEWNET);
    close(home_ns_);
  }
  for (const char* role : {"r", "a", "b1", "b2"}) Shell("ip netns del " + Ns(role));
}

int TestBed::Ip(const std::string& role, const std::string& command, std::string* out) const {
  return Shell("ip -n " + Ns(role) + " " + command, out);
}

nlohmann::json TestBed::IpJson(const std::string& role, const std::string& command) const {
  std::string out;
  if (Shell("ip -j -n " + Ns(role) + " " + command, &out) != 0) return nlohmann::json::array();
  auto json = nlohmann::json::parse(out, nullptr, false);
  return json.is_discarded() ? nlohmann::json::array() : json;
}

nlohmann::json TestBed::Rules(int protocol) const {
  nlohmann::json all = IpJson("r", "rule show");
  nlohmann::json ours = nlohmann::json::array();
  std::string want = std::to_string(protocol);
  for (auto& rule : all) {
    // ip prints a protocol it has no name for as its number.
    if (rule.contains("protocol") && rule["protocol"].dump() == "\"" + want + "\"")
      ours.push_back(rule);
  }
  return ours;
}

nlohmann::json TestBed::Routes(uint32_t table) const {
  return IpJson("r", "route show table " + std::to_string(table));
}

uint64_t TestBed::TxPackets(const std::string& dev) const {
  auto json = IpJson("r", "-s link show dev " + dev);
  if (!json.is_array() || json.empty()) return 0;
  return json[0]["stats64"]["tx"]["packets"].get<uint64_t>();
}

std::string TestBed::PingPath() const {
  const uint64_t b1 = TxPackets("rb1"), b2 = TxPackets("rb2");
  const auto [sent, received] = BackgroundPing(*this, 5, 20).Wait();
  const uint64_t d1 = TxPackets("rb1") - b1, d2 = TxPackets("rb2") - b2;
  if (sent > 0 && received == sent && d1 >= 5 && d2 < 5) return "rb1";
  if (sent > 0 && received == sent && d2 >= 5 && d1 < 5) return "rb2";
  return "? (sent " + std::to_string(sent) + ", received " + std::to_string(received) + ", rb1 +" +
         std::to_string(d1) + ", rb2 +" + std::to_string(d2) + ")";
}

BackgroundPing::BackgroundPing(const TestBed& bed, int count, int interval_ms)
    : ping_(std::make_unique<Child>(std::vector<std::string>{
          "ip", "netns", "exec", bed.Ns("a"), "ping", "-q", "-n", "-c", std::to_string(count), "-i",
          std::to_string(interval_ms / 1000.0), "-w",
          std::to_string(count * interval_ms / 1000 + 5), "10.9.9.9"})) {}

BackgroundPing::~BackgroundPing() {
  if (ping_) Wait();
}

std::pair<int, int> BackgroundPing::Wait() {
  const std::string s = ping_->Finish(std::chrono::seconds(60)).out;
  ping_.reset();
  // "5 packets transmitted, 5 received, ..."
  int sent = 0, received = 0;
  const auto at = s.find(" packets transmitted, ");
  if (at == std::string::npos) return {0, 0};
  const auto start = s.rfind('\n', at);
  if (std::sscanf(s.c_str() + (start == std::string::npos ? 0 : start + 1),
                  "%d packets transmitted, %d received", &sent, &received) != 2)
    return {0, 0};
  return {sent, received};
}

}  // namespace pbrtest
