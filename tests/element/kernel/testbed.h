// A routed test network in network namespaces, made and deleted by one test:
//
//   a (10.1.0.2) --ar--ra-- r --rb1--b1r-- b1 (10.0.1.2, lo 10.9.9.9)
//                           r --rb2--b2r-- b2 (10.0.2.2, lo 10.9.9.9)
//
// r forwards (rp_filter off) and its main table reaches 10.9.9.9 via b1. The test thread enters r,
// so netlink sockets the test opens belong to r. Namespace names carry the process id, so tests
// running in parallel do not collide.
#pragma once

#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "tests/element/cli/child_process.h"

namespace pbrtest {

// Runs `command` with sh; its exit status, stdout in `out` when given.
int Shell(const std::string& command, std::string* out = nullptr);

class TestBed {
 public:
  TestBed();
  ~TestBed();
  TestBed(const TestBed&) = delete;
  TestBed& operator=(const TestBed&) = delete;

  // False, with the reason in error(), when namespaces cannot be made here.
  bool ok() const { return ok_; }
  const std::string& error() const { return error_; }

  // The full name of namespace r, a, b1 or b2.
  std::string Ns(const std::string& role) const { return prefix_ + role; }
  // Runs `command` (an `ip` subcommand line) in namespace `role`: Ip("r", "link set rb2 down").
  int Ip(const std::string& role, const std::string& command, std::string* out = nullptr) const;
  nlohmann::json IpJson(const std::string& role, const std::string& command) const;

  // r's rules of `protocol` in list order, and the routes of `table`.
  nlohmann::json Rules(int protocol) const;
  nlohmann::json Routes(uint32_t table) const;
  // Packets r has sent out of `dev` (ra, rb1, rb2).
  uint64_t TxPackets(const std::string& dev) const;
  // Which of r's next-hop links carried a short ping from a to 10.9.9.9, none lost: "rb1", "rb2",
  // or "?" with the counts.
  std::string PingPath() const;

 private:
  std::string prefix_;
  bool ok_ = false;
  std::string error_;
  int home_ns_ = -1;
};

// A ping from a to 10.9.9.9 running in the background: `count` packets `interval_ms` apart.
class BackgroundPing {
 public:
  BackgroundPing(const TestBed& bed, int count, int interval_ms);
  ~BackgroundPing();
  // Waits for the end, once; packets sent and received.
  std::pair<int, int> Wait();

 private:
  std::unique_ptr<Child> ping_;
};

}  // namespace pbrtest
