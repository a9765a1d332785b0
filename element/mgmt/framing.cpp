#include "element/mgmt/framing.h"

#include <errno.h>
#include <sys/socket.h>
#include <unistd.h>

namespace pbr::mgmt {
namespace {

// Empties a buffer; one that a bulk message grew is freed, so that a connection idles small.
void Release(std::string* buffer) {
  constexpr size_t kKeep = 1 << 20;
  if (buffer->capacity() > kKeep) {
    std::string().swap(*buffer);
  } else {
    buffer->clear();
  }
}

uint32_t FrameLength(const char* header) {
  const auto* p = reinterpret_cast<const unsigned char*>(header);
  return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | uint32_t{p[3]};
}

}  // namespace

FramedStream::Io FramedStream::ReadFrom(int fd, size_t limit) {
  constexpr size_t kChunk = 256 * 1024;
  for (size_t total = 0; total < limit;) {
    // Drop consumed input before growing, so that a long session does not keep old frames.
    if (inOffset_ > 0 && inOffset_ * 2 >= in_.size()) {
      in_.erase(0, inOffset_);
      inOffset_ = 0;
    }
    // A frame longer than what is buffered gets its room at once: a bulk message would be
    // copied at every doubling of the buffer (and fault in each new copy's pages) otherwise.
    if (const size_t avail = in_.size() - inOffset_; avail >= kHeaderSize) {
      const uint32_t len = FrameLength(in_.data() + inOffset_);
      if (len <= maxFrameSize_ && avail < kHeaderSize + len) {
        in_.reserve(inOffset_ + kHeaderSize + len + kChunk);
      }
    }
    const size_t used = in_.size();
    in_.resize(used + kChunk);
    const ssize_t n = ::read(fd, in_.data() + used, kChunk);
    in_.resize(used + (n > 0 ? static_cast<size_t>(n) : 0));
    if (n > 0) {
      total += static_cast<size_t>(n);
      continue;
    }
    if (n == 0) return Io::kClosed;
    if (errno == EINTR) continue;
    if (errno == EAGAIN || errno == EWOULDBLOCK) return Io::kOk;
    return Io::kError;
  }
  return Io::kOk;
}

bool FramedStream::HasFrame() const {
  const size_t avail = in_.size() - inOffset_;
  if (avail < kHeaderSize) return false;
  const uint32_t len = FrameLength(in_.data() + inOffset_);
  return len > maxFrameSize_ || avail - kHeaderSize >= len;
}

FramedStream::Frame FramedStream::Next(std::string* payload) {
  std::string_view view;
  const Frame frame = Next(&view);
  if (frame == Frame::kComplete) payload->assign(view);
  return frame;
}

FramedStream::Frame FramedStream::Next(std::string_view* payload) {
  // Input that earlier frames used up goes only now, as their views lived until this call.
  if (inOffset_ == in_.size()) {
    Release(&in_);
    inOffset_ = 0;
  }
  const size_t avail = in_.size() - inOffset_;
  if (avail < kHeaderSize) return Frame::kIncomplete;
  const uint32_t len = FrameLength(in_.data() + inOffset_);
  if (len > maxFrameSize_) return Frame::kOversized;
  if (avail - kHeaderSize < len) return Frame::kIncomplete;
  *payload = std::string_view(in_).substr(inOffset_ + kHeaderSize, len);
  inOffset_ += kHeaderSize + len;
  return Frame::kComplete;
}

unsigned char* FramedStream::AddFrame(size_t len) {
  if (outOffset_ == out_.size()) {
    out_.clear();
    outOffset_ = 0;
  }
  const size_t at = out_.size();
  out_.resize(at + 4 + len);
  auto* p = reinterpret_cast<unsigned char*>(out_.data() + at);
  p[0] = static_cast<unsigned char>(len >> 24);
  p[1] = static_cast<unsigned char>(len >> 16);
  p[2] = static_cast<unsigned char>(len >> 8);
  p[3] = static_cast<unsigned char>(len);
  return p + 4;
}

void FramedStream::Queue(const google::protobuf::MessageLite& message) {
  message.SerializeWithCachedSizesToArray(AddFrame(message.ByteSizeLong()));
}

void FramedStream::QueueFrame(std::string frame) {
  const size_t len = frame.size() - kHeaderSize;
  auto* p = reinterpret_cast<unsigned char*>(frame.data());
  p[0] = static_cast<unsigned char>(len >> 24);
  p[1] = static_cast<unsigned char>(len >> 16);
  p[2] = static_cast<unsigned char>(len >> 8);
  p[3] = static_cast<unsigned char>(len);
  if (outOffset_ == out_.size()) {
    out_ = std::move(frame);
    outOffset_ = 0;
  } else {
    out_ += frame;
  }
}

FramedStream::Io FramedStream::WriteTo(int fd) {
  while (outOffset_ < out_.size()) {
    const ssize_t n = ::send(fd, out_.data() + outOffset_, out_.size() - outOffset_, MSG_NOSIGNAL);
    if (n > 0) {
      outOffset_ += static_cast<size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return Io::kOk;
    return Io::kError;
  }
  Release(&out_);
  outOffset_ = 0;
  return Io::kOk;
}

}  // namespace pbr::mgmt
