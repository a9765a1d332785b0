#include "tests/support/fake_confd.h"

#include <arpa/inet.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "element/framework/values.h"

namespace fake {
namespace {

Cdb cdb;

std::string Format(const char* fmt, va_list args) {
  char path[1024];
  vsnprintf(path, sizeof(path), fmt, args);
  return path;
}

}  // namespace

Cdb& TheCdb() {
  return cdb;
}
void ResetCdb() {
  cdb = Cdb{};
  vqconfd::detail::SetLastError("");
}

void Cdb::SetU32(const std::string& path, uint32_t value) {
  Stored& s = values_[path];
  s.value.type = C_UINT32;
  s.value.val.u32 = value;
}

void Cdb::SetStr(const std::string& path, const std::string& value) {
  Stored& s = values_[path];
  s.value.type = C_BUF;
  s.text = value;
}

void Cdb::SetIpv4(const std::string& path, const char* address) {
  Stored& s = values_[path];
  s.value.type = C_IPV4;
  inet_pton(AF_INET, address, &s.value.val.ip);
}

void Cdb::SetIpv4AndPlen(const std::string& path, const char* address, uint8_t prefixLen) {
  Stored& s = values_[path];
  s.value.type = C_IPV4_AND_PLEN;
  inet_pton(AF_INET, address, &s.value.val.ipv4prefix.ip);
  s.value.val.ipv4prefix.len = prefixLen;
}

void Cdb::SetList(const std::string& path, const std::vector<std::string>& names) {
  Stored& s = values_[path];
  s.isList = true;
  s.list = names;
}

void Cdb::FailRead(const std::string& path, const std::string& error) {
  values_[path].error = error;
}

std::string Cdb::Prefix(int position) const {
  return "/router/pbr[" + std::to_string(position) + "]";
}

int Cdb::Reads(const std::string& function, const std::string& path) const {
  auto it = reads_.find(function + " " + path);
  return it == reads_.end() ? 0 : it->second;
}

const Cdb::Stored* Cdb::Find(const std::string& path) const {
  auto it = values_.find(path);
  return it == values_.end() ? nullptr : &it->second;
}

void Cdb::CountRead(const std::string& function, const std::string& path) {
  ++reads_[function + " " + path];
}

int Cdb::NextInstanceAnswer() {
  ++instanceQueries_;
  if (instanceAnswerPos_ < instanceAnswers_.size()) return instanceAnswers_[instanceAnswerPos_++];
  return ruleCount_;
}

}  // namespace fake

namespace {

// Looks a read up: the stored value, or null with confd_lasterr set.
const fake::Cdb::Stored* Lookup(const char* function, const std::string& path, int type) {
  fake::cdb.CountRead(function, path);
  const fake::Cdb::Stored* s = fake::cdb.Find(path);
  if (s == nullptr) {
    vqconfd::detail::SetLastError("item does not exist");
    return nullptr;
  }
  if (!s->error.empty()) {
    vqconfd::detail::SetLastError(s->error);
    return nullptr;
  }
  if (type != 0 && s->value.type != type) {
    vqconfd::detail::SetLastError("wrong type");
    return nullptr;
  }
  return s;
}

}  // namespace

extern "C" {

// The path a cdb_* call names, formatted as the library would.
#define PATH_OF(fmt)                                \
  va_list args;                                     \
  va_start(args, fmt);                              \
  const std::string path = fake::Format(fmt, args); \
  va_end(args)

int cdb_num_instances(int, const char* fmt, ...) {
  PATH_OF(fmt);
  fake::cdb.CountRead("cdb_num_instances", path);
  return fake::cdb.NextInstanceAnswer();
}

int cdb_exists(int, const char* fmt, ...) {
  PATH_OF(fmt);
  fake::cdb.CountRead("cdb_exists", path);
  return fake::cdb.Find(path) != nullptr ? 1 : 0;
}

int cdb_get_u_int32(int, uint32_t* rval, const char* fmt, ...) {
  PATH_OF(fmt);
  const fake::Cdb::Stored* s = Lookup("cdb_get_u_int32", path, C_UINT32);
  if (s) *rval = s->value.val.u32;
  return s ? CONFD_OK : CONFD_ERR;
}

int cdb_get_str(int, char* rval, int n, const char* fmt, ...) {
  PATH_OF(fmt);
  const fake::Cdb::Stored* s = Lookup("cdb_get_str", path, C_BUF);
  if (s == nullptr) return CONFD_ERR;
  if (static_cast<int>(s->text.size()) >= n) {
    vqconfd::detail::SetLastError("buffer too small");
    return CONFD_ERR;
  }
  memcpy(rval, s->text.c_str(), s->text.size() + 1);
  return CONFD_OK;
}

int cdb_get_ipv4(int, struct in_addr* rval, const char* fmt, ...) {
  PATH_OF(fmt);
  const fake::Cdb::Stored* s = Lookup("cdb_get_ipv4", path, C_IPV4);
  if (s) *rval = s->value.val.ip;
  return s ? CONFD_OK : CONFD_ERR;
}

int cdb_get_ipv4_and_plen(int, struct confd_ipv4_prefix* rval, const char* fmt, ...) {
  PATH_OF(fmt);
  const fake::Cdb::Stored* s = Lookup("cdb_get_ipv4_and_plen", path, C_IPV4_AND_PLEN);
  if (s) *rval = s->value.val.ipv4prefix;
  return s ? CONFD_OK : CONFD_ERR;
}

int cdb_get_list(int, confd_value_t** values, int* n, const char* fmt, ...) {
  PATH_OF(fmt);
  const fake::Cdb::Stored* s = Lookup("cdb_get_list", path, 0);
  if (s == nullptr || !s->isList) return CONFD_ERR;
  *n = static_cast<int>(s->list.size());
  *values = static_cast<confd_value_t*>(malloc(sizeof(confd_value_t) * (s->list.size() + 1)));
  for (size_t i = 0; i < s->list.size(); ++i) {
    confd_value_t& v = (*values)[i];
    v.type = C_BUF;
    v.val.buf.size = static_cast<unsigned>(s->list[i].size());
    v.val.buf.ptr = reinterpret_cast<unsigned char*>(strdup(s->list[i].c_str()));
  }
  return CONFD_OK;
}

}  // extern "C"
