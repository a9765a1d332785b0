#include "element/framework/values.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "element/middleware/text.h"
#include "element/yang/tags.h"

namespace vqconfd::detail {
namespace {

thread_local std::string lastError;

bool ParseU64(std::string_view text, uint64_t max, uint64_t* out) {
  uint64_t v = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), v);
  if (text.empty() || error != std::errc() || end != text.data() + text.size() || v > max) {
    return false;
  }
  *out = v;
  return true;
}

bool ParseI64(std::string_view text, int64_t min, int64_t max, int64_t* out) {
  int64_t v = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), v);
  if (text.empty() || error != std::errc() || end != text.data() + text.size() || v < min ||
      v > max) {
    return false;
  }
  *out = v;
  return true;
}

using vqmw::AppendIpv4;
using vqmw::AppendNumber;

// Appends the text of a key or value as ConfD prints it in a keypath. Written without
// formatted output: every change of a commit is printed this way.
void AppendText(const confd_value_t& v, std::string* out) {
  switch (v.type) {
    case C_BUF:
      out->append(reinterpret_cast<const char*>(v.val.buf.ptr), v.val.buf.size);
      return;
    case C_STR:
      if (v.val.s) out->append(v.val.s);
      return;
    case C_UINT32:
    case C_UINT8:
    case C_UINT16:
      AppendNumber(v.val.u32, out);
      return;
    case C_INT8:
    case C_INT16:
    case C_INT32:
      AppendNumber(static_cast<int32_t>(v.val.u32), out);
      return;
    case C_ENUM_VALUE:
      AppendNumber(v.val.enumvalue, out);
      return;
    case C_BOOL:
      out->append(v.val.u32 ? "true" : "false");
      return;
    case C_IPV4:
      AppendIpv4(v.val.ip, out);
      return;
    case C_IPV4_AND_PLEN:
      AppendIpv4(v.val.ipv4prefix.ip, out);
      out->push_back('/');
      AppendNumber(v.val.ipv4prefix.len, out);
      return;
    case C_XMLTAG: {
      const std::string_view name = pbr::yang::NameOfTag(v.val.xmltag.tag);
      if (name.empty()) {
        AppendNumber(v.val.xmltag.tag, out);
      } else {
        out->append(name);
      }
      return;
    }
    default:
      return;
  }
}

std::string Text(const confd_value_t& v) {
  std::string text;
  AppendText(v, &text);
  return text;
}

}  // namespace

bool FromWire(const pbr::mgmt::Value& in, confd_value_t* out, bool copy) {
  return FromWire(in.type(), in.text(), out, copy);
}

bool FromWire(uint32_t type, std::string_view text, confd_value_t* out, bool copy) {
  std::memset(out, 0, sizeof *out);
  out->type = static_cast<confd_vtype>(type);
  uint64_t u = 0;
  int64_t i = 0;
  switch (out->type) {
    case C_BUF:
      out->val.buf.size = static_cast<unsigned int>(text.size());
      if (copy) {
        out->val.buf.ptr = static_cast<unsigned char*>(std::malloc(text.size() + 1));
        std::memcpy(out->val.buf.ptr, text.data(), text.size());
        out->val.buf.ptr[text.size()] = '\0';
      } else {
        out->val.buf.ptr = reinterpret_cast<unsigned char*>(const_cast<char*>(text.data()));
      }
      return true;
    case C_UINT8:
    case C_UINT16:
    case C_UINT32: {
      const uint64_t max = out->type == C_UINT8    ? 0xff
                           : out->type == C_UINT16 ? 0xffff
                                                   : 0xffffffff;
      if (!ParseU64(text, max, &u)) return false;
      out->val.u32 = static_cast<uint32_t>(u);
      return true;
    }
    case C_INT8:
    case C_INT16:
    case C_INT32:
      if (!ParseI64(text, INT32_MIN, INT32_MAX, &i)) return false;
      out->val.u32 = static_cast<uint32_t>(static_cast<int32_t>(i));
      return true;
    case C_ENUM_VALUE:
      if (!ParseI64(text, INT32_MIN, INT32_MAX, &i)) return false;
      out->val.enumvalue = static_cast<int32_t>(i);
      return true;
    case C_BOOL:
      out->val.u32 = text == "true";
      return text == "true" || text == "false";
    case C_IPV4:
      return inet_pton(AF_INET, std::string(text).c_str(), &out->val.ip) == 1;
    case C_IPV4_AND_PLEN: {
      const size_t slash = text.find('/');
      if (slash == std::string_view::npos) return false;
      if (inet_pton(AF_INET, std::string(text.substr(0, slash)).c_str(), &out->val.ipv4prefix.ip) !=
          1) {
        return false;
      }
      if (!ParseU64(text.substr(slash + 1), 32, &u)) return false;
      out->val.ipv4prefix.len = static_cast<uint8_t>(u);
      return true;
    }
    case C_NOEXISTS:
      return true;
    default:
      // Types the PBR module does not use (64-bit numbers among them) do not fit this value.
      return false;
  }
}

void ToWire(const confd_value_t& in, pbr::mgmt::Value* out) {
  out->set_type(in.type);
  out->set_text(Text(in));
}

bool BuildKeypath(const std::vector<const pbr::mgmt::KeypathElement*>& elements,
                  confd_hkeypath_t* out) {
  const int len = static_cast<int>(elements.size());
  if (len > MAXDEPTH) return false;
  out->len = len;
  for (int i = 0; i < len; ++i) {
    const pbr::mgmt::KeypathElement& e = *elements[len - 1 - i];
    confd_value_t* v = out->v[i];
    if (e.key_size() == 0) {
      CONFD_SET_XMLTAG(&v[0], e.tag(), e.ns());
      v[1].type = static_cast<confd_vtype>(0);
      continue;
    }
    if (e.key_size() >= MAXKEYLEN) return false;
    for (int k = 0; k < e.key_size(); ++k) {
      if (!FromWire(e.key(k), &v[k])) return false;
    }
    v[e.key_size()].type = static_cast<confd_vtype>(0);  // ends the key list
  }
  return true;
}

void SetLastError(std::string text) {
  lastError = std::move(text);
}

}  // namespace vqconfd::detail

using vqconfd::detail::lastError;

extern "C" {

void confd_free_value(confd_value_t* v) {
  if (v && v->type == C_BUF) {
    std::free(v->val.buf.ptr);
    v->val.buf.ptr = nullptr;
    v->val.buf.size = 0;
  }
}

const char* confd_lasterr(void) {
  return lastError.c_str();
}

int confd_pp_kpath(char* buf, int bufsiz, const confd_hkeypath_t* hkeypath) {
  thread_local std::string text;  // reused: the daemon prints every change's keypath
  text.clear();
  std::string key;
  for (int i = hkeypath->len - 1; i >= 0; --i) {
    const confd_value_t* v = hkeypath->v[i];
    if (v[0].type == C_XMLTAG) {
      text += '/';
      vqconfd::detail::AppendText(v[0], &text);
      continue;
    }
    text += '{';
    for (int k = 0; k < MAXKEYLEN && v[k].type != 0 && v[k].type != C_NOEXISTS; ++k) {
      if (k > 0) text += ' ';
      key.clear();
      vqconfd::detail::AppendText(v[k], &key);
      const bool quote = key.empty() || key.find_first_of(" {}\"") != std::string::npos;
      if (quote) text += '"';
      text += key;
      if (quote) text += '"';
    }
    text += '}';
  }
  if (bufsiz > 0) {
    const size_t n = std::min(text.size(), static_cast<size_t>(bufsiz - 1));
    std::memcpy(buf, text.data(), n);
    buf[n] = '\0';
  }
  return static_cast<int>(text.size());
}

}  // extern "C"
