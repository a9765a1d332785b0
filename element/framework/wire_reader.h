// A reader of protobuf's wire format over one serialized message, for the bulk messages the
// framework walks in place instead of parsing into message objects.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace vqconfd::detail {

class WireReader {
 public:
  explicit WireReader(std::string_view bytes) : rest_(bytes) {}
  bool done() const { return rest_.empty(); }

  bool Varint(uint64_t* out) {
    *out = 0;
    for (int shift = 0; shift < 64 && !rest_.empty(); shift += 7) {
      const auto byte = static_cast<unsigned char>(rest_.front());
      rest_.remove_prefix(1);
      *out |= uint64_t{byte & 0x7fu} << shift;
      if (!(byte & 0x80)) return true;
    }
    return false;
  }
  // A length-delimited field's bytes.
  bool Bytes(std::string_view* out) {
    uint64_t size = 0;
    if (!Varint(&size) || size > rest_.size()) return false;
    *out = rest_.substr(0, size);
    rest_.remove_prefix(size);
    return true;
  }
  // Skips a field of the given wire type; false on a malformed or group field.
  bool Skip(uint32_t wireType) {
    uint64_t ignored = 0;
    std::string_view bytes;
    switch (wireType) {
      case 0:
        return Varint(&ignored);
      case 1:
      case 5: {
        const size_t size = wireType == 1 ? 8 : 4;
        if (rest_.size() < size) return false;
        rest_.remove_prefix(size);
        return true;
      }
      case 2:
        return Bytes(&bytes);
      default:
        return false;
    }
  }

  // Field keys: a field number with its wire type.
  static constexpr uint64_t Key(uint32_t field, uint32_t wireType) {
    return uint64_t{field} << 3 | wireType;
  }
  static constexpr uint32_t kVarint = 0;
  static constexpr uint32_t kBytes = 2;

 private:
  std::string_view rest_;
};

}  // namespace vqconfd::detail
