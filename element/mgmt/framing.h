// Message framing on the management socket: each message is a 4-byte big-endian length
// followed by that many bytes of protobuf. One FramedStream belongs to one connection and is
// used on the thread of the loop that polls the connection's non-blocking fd.
#pragma once

#include <google/protobuf/message_lite.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace pbr::mgmt {

// The largest message either side accepts: room for a bulk load of 65,536 rules as XML.
inline constexpr uint32_t kMaxFrameSize = 64u << 20;

class FramedStream {
 public:
  explicit FramedStream(uint32_t maxFrameSize = kMaxFrameSize) : maxFrameSize_(maxFrameSize) {}

  enum class Io { kOk, kClosed, kError };
  // Reads what the fd has now (until EAGAIN), or about `limit` bytes when it has more, so that
  // one connection cannot hold a loop's turn. kClosed: the peer ended the stream.
  Io ReadFrom(int fd, size_t limit = SIZE_MAX);
  // Input read and not yet taken by Next: the start of a message, or messages not yet taken.
  size_t BufferedInput() const { return in_.size() - inOffset_; }
  // Whether Next would return other than kIncomplete now.
  bool HasFrame() const;

  enum class Frame { kComplete, kIncomplete, kOversized };
  // Takes the next complete frame's payload out of the input. kOversized: the peer announced a
  // frame larger than the limit; the stream cannot be resynchronised and should be closed.
  Frame Next(std::string* payload);
  // The same without a copy: `payload` views the input and stays valid until the next call of
  // ReadFrom or Next.
  Frame Next(std::string_view* payload);

  // Queues one message; it goes out with WriteTo.
  void Queue(const google::protobuf::MessageLite& message);
  // Bytes in front of each message on the wire.
  static constexpr size_t kHeaderSize = 4;
  // Queues one message that is already encoded, in `frame` after kHeaderSize bytes of room for
  // the header; a large message is taken over rather than copied when nothing else is queued.
  void QueueFrame(std::string frame);
  // Writes as much queued output as the fd takes now.
  Io WriteTo(int fd);
  bool HasOutput() const { return outOffset_ < out_.size(); }
  size_t QueuedBytes() const { return out_.size() - outOffset_; }

 private:
  // Appends a frame header for `len` bytes of payload and room for them.
  unsigned char* AddFrame(size_t len);

  uint32_t maxFrameSize_;
  std::string in_;
  size_t inOffset_ = 0;
  std::string out_;
  size_t outOffset_ = 0;
};

}  // namespace pbr::mgmt
