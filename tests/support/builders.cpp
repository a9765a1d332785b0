#include "tests/support/builders.h"

#include <arpa/inet.h>

#include <cstring>
#include <deque>
#include <stdexcept>
#include <vector>

#include "common/pbr_schema.h"

namespace build {
namespace {

uint32_t TagOf(const std::string& name) {
#define PBR_TAG(constant, node, value) \
  if (name == node) return value;
#include "common/pbr_tags.def"
#undef PBR_TAG
  throw std::invalid_argument("no tag named " + name);
}

template <typename Values>
confd_hkeypath_t FromRootFirst(const Values& rootFirst) {
  confd_hkeypath_t kp;
  memset(&kp, 0, sizeof(kp));
  kp.len = static_cast<int>(rootFirst.size());
  int i = kp.len - 1;
  for (const confd_value_t& v : rootFirst) kp.v[i--][0] = v;
  return kp;
}

}  // namespace

confd_value_t Tag(uint32_t tag) {
  confd_value_t v{};
  CONFD_SET_XMLTAG(&v, tag, pbr::pbr__ns);
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

confd_value_t Ipv4(const char* address) {
  confd_value_t v{};
  v.type = C_IPV4;
  inet_pton(AF_INET, address, &v.val.ip);
  return v;
}

confd_value_t Ipv4AndPlen(const char* address, uint8_t prefixLen) {
  confd_value_t v{};
  v.type = C_IPV4_AND_PLEN;
  inet_pton(AF_INET, address, &v.val.ipv4prefix.ip);
  v.val.ipv4prefix.len = prefixLen;
  return v;
}

confd_hkeypath_t Keypath(std::initializer_list<confd_value_t> rootFirst) {
  return FromRootFirst(rootFirst);
}

confd_hkeypath_t Kp(const std::string& path) {
  std::vector<confd_value_t> rootFirst;
  for (size_t at = 0; at < path.size();) {
    const bool key = path[at] == '{';
    const size_t end = key ? path.find('}', at) : path.find_first_of("/{", at + 1);
    const std::string text = path.substr(at + 1, end == std::string::npos ? end : end - at - 1);
    if (!key) {
      rootFirst.push_back(Tag(TagOf(text)));
    } else if (!text.empty() && text.find_first_not_of("0123456789") == std::string::npos) {
      rootFirst.push_back(U32(static_cast<uint32_t>(std::stoul(text))));
    } else {
      rootFirst.push_back(Buf(text));
    }
    at = key ? end + 1 : end;
  }
  return FromRootFirst(rootFirst);
}

}  // namespace build
