// Builds pbr::Entry values for tests: Rule(100).Src("10.1.0.0", "255.255.0.0").NextHop(...).
#pragma once

#include <arpa/inet.h>

#include <list>
#include <string>

#include "platform/pbr_model.h"

namespace pbrtest {

inline in_addr Ip(const std::string& text) {
  in_addr address{};
  inet_pton(AF_INET, text.c_str(), &address);
  return address;
}

class Rule {
 public:
  explicit Rule(uint32_t priority) { entry_.setPriority(priority); }
  Rule& Src(const std::string& ip, const std::string& mask) {
    entry_.setMatch(pbr::MatchSrcIPv4(Ip(ip), Ip(mask)));
    return *this;
  }
  Rule& Dst(const std::string& ip, const std::string& mask) {
    entry_.setMatch(pbr::MatchDstIPv4(Ip(ip), Ip(mask)));
    return *this;
  }
  Rule& Ingress(std::list<limid_t> ports) {
    entry_.setMatch(pbr::MatchIngressPorts(ports));
    return *this;
  }
  Rule& NextHop(const std::string& ip) {
    entry_.setAction(pbr::ActionL3NextHop(Ip(ip)));
    return *this;
  }
  operator const pbr::Entry&() const { return entry_; }

 private:
  pbr::Entry entry_;
};

}  // namespace pbrtest
