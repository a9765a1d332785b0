// A stand-in for the PBR daemon's "show_pbr" callpoint on the management socket: attaches as a
// daemon serving the callpoint and answers each get-object request from a table of rules, with
// the tagged values the daemon replies with. Used on the test's thread; Serve() is called
// whenever fd() is readable.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "element/mgmt/framing.h"

namespace pbrtest {

struct FakeRuleStatus {
  std::optional<std::string> source;       // absent: no source match
  std::optional<std::string> destination;  // absent: no destination match
  std::optional<std::string> nextHop;      // absent: "l3-routing"
  int hwStatus = 0;                        // 0, 1, 2; other codes are left out of the reply
};

class FakeStatusProvider {
 public:
  explicit FakeStatusProvider(std::map<uint32_t, FakeRuleStatus> rules)
      : rules_(std::move(rules)) {}
  ~FakeStatusProvider();

  // Connects and attaches; false with *error when the server refuses or does not answer in 5 s.
  bool Attach(const std::string& socketPath, std::string* error);

  int fd() const { return fd_; }
  // Answers every complete request that has arrived.
  void Serve();
  int requestsServed() const { return served_; }

 private:
  int fd_ = -1;
  pbr::mgmt::FramedStream stream_;
  std::map<uint32_t, FakeRuleStatus> rules_;
  int served_ = 0;
};

}  // namespace pbrtest
