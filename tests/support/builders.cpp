#include "tests/support/builders.h"

#include <arpa/inet.h>

#include <cstring>
#include <deque>
#include <stdexcept>
#include <vector>

#include "common/pbr_schema.h"
#include "element/mgmt/keypath_text.h"
#include "element/yang/tags.h"

namespace build {
namespace {

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
  std::vector<pbr::mgmt::KeypathSegment> segments;
  std::string error;
  if (!pbr::mgmt::SplitKeypath(path, &segments, &error)) throw std::invalid_argument(error);
  std::vector<confd_value_t> rootFirst;
  for (const pbr::mgmt::KeypathSegment& segment : segments) {
    const std::optional<uint32_t> tag = pbr::yang::TagOfName(segment.name);
    if (!tag) throw std::invalid_argument("no tag named " + segment.name);
    rootFirst.push_back(Tag(*tag));
    for (const std::string& key : segment.keys) {
      const bool number = !key.empty() && key.find_first_not_of("0123456789") == std::string::npos;
      rootFirst.push_back(number ? U32(static_cast<uint32_t>(std::stoul(key))) : Buf(key));
    }
  }
  return FromRootFirst(rootFirst);
}

}  // namespace build
