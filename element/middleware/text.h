// Numbers and IPv4 addresses appended as text without formatted output, for the element's hot
// paths (every change's keypath, every line of a state file). Header-only.
#pragma once

#include <netinet/in.h>

#include <charconv>
#include <string>

namespace vqmw {

template <typename T>
void AppendNumber(T n, std::string* out) {
  char text[24];
  out->append(text, std::to_chars(text, text + sizeof text, n).ptr);
}

// Dotted quad, as inet_ntop writes it.
inline void AppendIpv4(const in_addr& address, std::string* out) {
  const auto* octets = reinterpret_cast<const unsigned char*>(&address.s_addr);
  for (int i = 0; i < 4; ++i) {
    if (i > 0) out->push_back('.');
    AppendNumber(octets[i], out);
  }
}

}  // namespace vqmw
