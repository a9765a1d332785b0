// The CDB read functions of the ConfD client library, on the snapshots of cdb.h.
#include "element/framework/cdb.h"

#include <arpa/inet.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "element/framework/values.h"
#include "element/middleware/log.h"
#include "platform/confd_lib.h"

namespace vqconfd::detail {
namespace {

std::map<int, const CdbSnapshot*>& Sockets() {
  static std::map<int, const CdbSnapshot*> sockets;
  return sockets;
}

std::string Format(const char* fmt, va_list ap) {
  va_list copy;
  va_copy(copy, ap);
  const int n = std::vsnprintf(nullptr, 0, fmt, copy);
  va_end(copy);
  std::string out(n > 0 ? static_cast<size_t>(n) : 0, '\0');
  if (n > 0) std::vsnprintf(out.data(), out.size() + 1, fmt, ap);
  return out;
}

// The nodes at the formatted path of a read on `sock`; CONFD_ERR with the reason set when the
// socket or the path is bad.
int Lookup(int sock, const char* fmt, va_list ap, CdbSnapshot::Found* nodes,
           const CdbSnapshot** snapshot = nullptr) {
  // Most paths arrive already formatted.
  std::string formatted;
  std::string_view path = fmt;
  if (std::strchr(fmt, '%')) path = formatted = Format(fmt, ap);
  auto it = Sockets().find(sock);
  if (it == Sockets().end()) {
    SetLastError("not a CDB socket: " + std::to_string(sock));
    return CONFD_ERR;
  }
  if (snapshot) *snapshot = it->second;
  std::string error;
  if (!it->second->Find(path, nodes, &error)) {
    SetLastError("bad path " + std::string(path) + ": " + error);
    return CONFD_ERR;
  }
  return CONFD_OK;
}

// The value of the one leaf at the path, of type `type`.
int ReadLeaf(int sock, confd_vtype type, const char* fmt, va_list ap, confd_value_t* out) {
  CdbSnapshot::Found nodes;
  const CdbSnapshot* snapshot = nullptr;
  if (Lookup(sock, fmt, ap, &nodes, &snapshot) != CONFD_OK) return CONFD_ERR;
  if (nodes.count != 1 || !nodes[0].hasValue) {
    SetLastError("item does not exist");
    return CONFD_ERR;
  }
  const CdbSnapshot::Node& node = nodes[0];
  const bool stringish = type == C_BUF && node.type == C_STR;
  if (node.type != static_cast<uint32_t>(type) && !stringish) {
    SetLastError("item has a different type");
    return CONFD_ERR;
  }
  if (!FromWire(node.type, snapshot->Text(node), out)) {
    SetLastError("bad value");
    return CONFD_ERR;
  }
  return CONFD_OK;
}

}  // namespace

void OpenCdbSocket(int sock, const CdbSnapshot* snapshot) {
  Sockets()[sock] = snapshot;
}

void CloseCdbSocket(int sock) {
  Sockets().erase(sock);
}

}  // namespace vqconfd::detail

using vqconfd::detail::Lookup;
using vqconfd::detail::ReadLeaf;
using vqconfd::detail::SetLastError;

extern "C" {

int cdb_num_instances(int sock, const char* fmt, ...) {
  vqconfd::detail::CdbSnapshot::Found nodes;
  va_list ap;
  va_start(ap, fmt);
  const int r = Lookup(sock, fmt, ap, &nodes);
  va_end(ap);
  return r == CONFD_OK ? nodes.count : static_cast<int>(CONFD_ERR);
}

int cdb_exists(int sock, const char* fmt, ...) {
  vqconfd::detail::CdbSnapshot::Found nodes;
  va_list ap;
  va_start(ap, fmt);
  const int r = Lookup(sock, fmt, ap, &nodes);
  va_end(ap);
  return r == CONFD_OK ? static_cast<int>(nodes.count > 0) : static_cast<int>(CONFD_ERR);
}

int cdb_get_u_int32(int sock, uint32_t* rval, const char* fmt, ...) {
  confd_value_t v;
  va_list ap;
  va_start(ap, fmt);
  const int r = ReadLeaf(sock, C_UINT32, fmt, ap, &v);
  va_end(ap);
  if (r == CONFD_OK) *rval = v.val.u32;
  return r;
}

int cdb_get_str(int sock, char* rval, int n, const char* fmt, ...) {
  confd_value_t v;
  va_list ap;
  va_start(ap, fmt);
  const int r = ReadLeaf(sock, C_BUF, fmt, ap, &v);
  va_end(ap);
  if (r != CONFD_OK) return r;
  if (n <= 0 || v.val.buf.size >= static_cast<unsigned>(n)) {
    // Cutting would hand the caller a value the configuration does not hold.
    SetLastError("value does not fit in " + std::to_string(n) + " bytes");
    va_start(ap, fmt);
    vqmw::Logger().error(
        "framework: the value at {} has {} bytes, the reader's buffer {} with the "
        "NUL; the read fails",
        std::strchr(fmt, '%') ? vqconfd::detail::Format(fmt, ap) : fmt, v.val.buf.size, n);
    va_end(ap);
    return CONFD_ERR;
  }
  std::memcpy(rval, v.val.buf.ptr, v.val.buf.size);
  rval[v.val.buf.size] = '\0';
  return CONFD_OK;
}

int cdb_get_ipv4(int sock, struct in_addr* rval, const char* fmt, ...) {
  confd_value_t v;
  va_list ap;
  va_start(ap, fmt);
  const int r = ReadLeaf(sock, C_IPV4, fmt, ap, &v);
  va_end(ap);
  if (r == CONFD_OK) *rval = v.val.ip;
  return r;
}

int cdb_get_ipv4_and_plen(int sock, struct confd_ipv4_prefix* rval, const char* fmt, ...) {
  confd_value_t v;
  va_list ap;
  va_start(ap, fmt);
  const int r = ReadLeaf(sock, C_IPV4_AND_PLEN, fmt, ap, &v);
  va_end(ap);
  if (r == CONFD_OK) *rval = v.val.ipv4prefix;
  return r;
}

int cdb_get_list(int sock, confd_value_t** values, int* n, const char* fmt, ...) {
  vqconfd::detail::CdbSnapshot::Found nodes;
  const vqconfd::detail::CdbSnapshot* snapshot = nullptr;
  va_list ap;
  va_start(ap, fmt);
  const int r = Lookup(sock, fmt, ap, &nodes, &snapshot);
  va_end(ap);
  if (r != CONFD_OK) return r;
  // A leaf-list without entries does not exist, as in CDB.
  if (nodes.count == 0) {
    SetLastError("item does not exist");
    return CONFD_ERR;
  }
  auto* array = static_cast<confd_value_t*>(std::malloc(nodes.count * sizeof(confd_value_t)));
  for (int i = 0; i < nodes.count; ++i) {
    if (!nodes[i].hasValue ||
        !vqconfd::detail::FromWire(nodes[i].type, snapshot->Text(nodes[i]), &array[i], true)) {
      for (int j = 0; j < i; ++j) confd_free_value(&array[j]);
      std::free(array);
      SetLastError("not a leaf-list");
      return CONFD_ERR;
    }
  }
  *values = array;
  *n = nodes.count;
  return CONFD_OK;
}

}  // extern "C"
