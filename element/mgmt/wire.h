// Writing protobuf wire bytes by hand, for the server's largest messages (a bulk commit's
// changes, the attachment snapshot): measured first, then written through a cursor into one
// buffer of that size, without a message object per node. Field keys are field number << 3 |
// wire type (0 varint, 2 length-delimited); proto3 leaves out zero scalars and empty strings,
// and so do these writers.
#pragma once

#include <libyang/libyang.h>

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "element/mgmt/schema_info.h"

namespace pbr::mgmt::wire {

inline size_t VarintSize(uint64_t v) {
  size_t n = 1;
  while (v >= 0x80) {
    v >>= 7;
    ++n;
  }
  return n;
}

inline char* PutVarint(uint64_t v, char* out) {
  while (v >= 0x80) {
    *out++ = static_cast<char>(v | 0x80);
    v >>= 7;
  }
  *out++ = static_cast<char>(v);
  return out;
}

inline size_t ScalarSize(uint64_t v) {
  return v ? 1 + VarintSize(v) : 0;
}

inline char* PutScalar(uint8_t key, uint64_t v, char* out) {
  if (!v) return out;
  *out++ = static_cast<char>(key);
  return PutVarint(v, out);
}

inline size_t LengthDelimitedSize(size_t length) {
  return 1 + VarintSize(length) + length;
}

// The key and length of a length-delimited field; its bytes follow.
inline char* PutLength(uint8_t key, size_t length, char* out) {
  *out++ = static_cast<char>(key);
  return PutVarint(length, out);
}

inline size_t StringSize(std::string_view text) {
  return text.empty() ? 0 : LengthDelimitedSize(text.size());
}

inline char* PutString(uint8_t key, std::string_view text, char* out) {
  if (text.empty()) return out;
  out = PutLength(key, text.size(), out);
  std::memcpy(out, text.data(), text.size());
  return out + text.size();
}

// A leaf's or leaf-list entry's Value as SetValue makes it: the node's ConfD type and its text
// (enumerations: the number).
class ValueView {
 public:
  explicit ValueView(const lyd_node* term) : type_(SchemaInfo::Of(term->schema).type) {
    if (type_ == C_ENUM_VALUE) {
      const auto* t = reinterpret_cast<const lyd_node_term*>(term);
      number_ =
          std::to_chars(digits_, digits_ + sizeof digits_, t->value.enum_item->value).ptr - digits_;
    } else {
      text_ = lyd_get_value(term);
    }
  }
  std::string_view text() const {
    return type_ == C_ENUM_VALUE ? std::string_view(digits_, number_) : text_;
  }
  // The size of the Value message's body.
  size_t Size() const { return ScalarSize(type_) + StringSize(text()); }
  char* Put(char* out) const {
    out = PutScalar(kType, type_, out);
    return PutString(kText, text(), out);
  }

 private:
  static constexpr uint8_t kType = 1 << 3;      // Value.type
  static constexpr uint8_t kText = 2 << 3 | 2;  // Value.text
  uint32_t type_;
  std::string_view text_;
  char digits_[12];
  size_t number_ = 0;
};

}  // namespace pbr::mgmt::wire
