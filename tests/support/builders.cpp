#include "tests/support/builders.h"

#include <arpa/inet.h>

#include <cstring>
#include <deque>

#include "common/pbr_schema.h"

namespace build {

using namespace pbr;

confd_value_t Tag(uint32_t tag) {
  confd_value_t v{};
  CONFD_SET_XMLTAG(&v, tag, pbr__ns);
  return v;
}

confd_value_t U32(uint32_t value) {
  confd_value_t v{};
  CONFD_SET_UINT32(&v, value);
  return v;
}

confd_value_t Buf(const std::string& text) {
  static std::deque<std::string> pool;
  pool.push_back(text);
  confd_value_t v{};
  v.type = C_BUF;
  v.val.buf.size = static_cast<unsigned>(text.size());
  v.val.buf.ptr = reinterpret_cast<unsigned char*>(pool.back().data());
  return v;
}

in_addr Addr(const char* address) {
  in_addr a{};
  inet_pton(AF_INET, address, &a);
  return a;
}

std::string Text(const in_addr& address) {
  char text[INET_ADDRSTRLEN];
  inet_ntop(AF_INET, &address, text, sizeof(text));
  return text;
}

confd_value_t Ipv4(const char* address) {
  confd_value_t v{};
  CONFD_SET_IPV4(&v, Addr(address));
  return v;
}

confd_value_t Ipv4AndPlen(const char* address, uint8_t prefixLen) {
  confd_value_t v{};
  v.type = C_IPV4_AND_PLEN;
  v.val.ipv4prefix.ip = Addr(address);
  v.val.ipv4prefix.len = prefixLen;
  return v;
}

confd_hkeypath_t Keypath(std::initializer_list<confd_value_t> rootFirst) {
  confd_hkeypath_t kp;
  memset(&kp, 0, sizeof(kp));
  kp.len = static_cast<int>(rootFirst.size());
  int i = kp.len - 1;
  for (const confd_value_t& v : rootFirst) kp.v[i--][0] = v;
  return kp;
}

confd_hkeypath_t RuleKp(uint32_t id) {
  return Keypath({Tag(pbr_router), Tag(pbr_pbr), U32(id)});
}

confd_hkeypath_t IdKp(uint32_t id) {
  return Keypath({Tag(pbr_router), Tag(pbr_pbr), U32(id), Tag(pbr_id)});
}

confd_hkeypath_t RuleLeafKp(uint32_t id, uint32_t leafTag) {
  return Keypath({Tag(pbr_router), Tag(pbr_pbr), U32(id), Tag(pbr_rule), Tag(leafTag)});
}

confd_hkeypath_t InterfaceKp(uint32_t id, const std::string& name) {
  return Keypath({Tag(pbr_router), Tag(pbr_pbr), U32(id), Tag(pbr_rule), Tag(pbr_match),
                  Tag(pbr_interface), Buf(name)});
}

confd_hkeypath_t NextHopKp(uint32_t id) {
  return Keypath({Tag(pbr_router), Tag(pbr_pbr), U32(id), Tag(pbr_rule), Tag(pbr_action),
                  Tag(pbr_next_hop), Tag(pbr_ip)});
}

confd_hkeypath_t MatchIpKp(uint32_t id, uint32_t direction, uint32_t form) {
  return Keypath({Tag(pbr_router), Tag(pbr_pbr), U32(id), Tag(pbr_rule), Tag(pbr_match),
                  Tag(direction), Tag(pbr_ipv4_address), Tag(form), Tag(pbr_ip)});
}

}  // namespace build
