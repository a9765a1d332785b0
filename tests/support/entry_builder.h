// Builds pbr::Entry values for the element's tests: EntryBuilder(7).Priority(10)
// .From("10.1.0.0/16").Iif(1).Via("10.0.2.2").Build(). Header only: no fakes come with it.
#pragma once

#include <arpa/inet.h>

#include <cstdint>
#include <list>
#include <string>

#include "platform/limid.h"
#include "platform/pbr_model.h"

namespace pbrtest {

inline in_addr Ip(const std::string& text) {
  in_addr a{};
  inet_pton(AF_INET, text.c_str(), &a);
  return a;
}

// "10.1.0.0/16" -> address and mask; "10.1.0.0/255.0.255.0" takes the mask as written.
inline std::pair<in_addr, in_addr> IpAndMask(const std::string& text) {
  auto slash = text.find('/');
  in_addr addr = Ip(text.substr(0, slash));
  if (slash == std::string::npos) return {addr, Ip("255.255.255.255")};
  std::string rest = text.substr(slash + 1);
  if (rest.find('.') != std::string::npos) return {addr, Ip(rest)};
  int len = std::stoi(rest);
  in_addr mask{len == 0 ? 0 : htonl(~uint32_t{0} << (32 - len))};
  return {addr, mask};
}

class EntryBuilder {
 public:
  explicit EntryBuilder(uint16_t id) { entry_.setId(id); }
  EntryBuilder& Priority(uint32_t priority) {
    entry_.setPriority(priority);
    return *this;
  }
  EntryBuilder& From(const std::string& prefix) {
    auto [addr, mask] = IpAndMask(prefix);
    entry_.setMatch(pbr::MatchSrcIPv4(addr, mask));
    return *this;
  }
  EntryBuilder& To(const std::string& prefix) {
    auto [addr, mask] = IpAndMask(prefix);
    entry_.setMatch(pbr::MatchDstIPv4(addr, mask));
    return *this;
  }
  EntryBuilder& Iif(uint32_t limid) {
    ports_.push_back(limid_t{limid});
    entry_.setMatch(pbr::MatchIngressPorts(ports_));
    return *this;
  }
  // By name, as limid_from_intfname identifies it.
  EntryBuilder& Iif(const std::string& name) {
    limid_t id{};
    limid_from_intfname(&id, name.c_str());
    return Iif(id.value);
  }
  EntryBuilder& Via(const std::string& next_hop) {
    entry_.setAction(pbr::ActionL3NextHop(Ip(next_hop)));
    return *this;
  }
  pbr::Entry Build() const { return entry_; }

 private:
  pbr::Entry entry_;
  std::list<limid_t> ports_;
};

}  // namespace pbrtest
