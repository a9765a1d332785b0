#include "element/mgmt/commit_history.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "element/mgmt/running_file.h"

namespace pbr::mgmt {
namespace {

constexpr size_t kHeader = 4;

std::string Errno(const std::string& what) {
  return what + ": " + std::strerror(errno);
}

uint32_t GetBe32(const unsigned char* p) {
  return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}

std::string Framed(const CommitRecord& record) {
  std::string body = record.SerializeAsString();
  const auto n = static_cast<uint32_t>(body.size());
  std::string out{static_cast<char>(n >> 24), static_cast<char>(n >> 16), static_cast<char>(n >> 8),
                  static_cast<char>(n)};
  return out + body;
}

bool WriteAll(int fd, std::string_view data) {
  while (!data.empty()) {
    const ssize_t n = ::write(fd, data.data(), data.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

bool ReadAt(int fd, uint64_t offset, size_t size, std::string* out) {
  out->resize(size);
  size_t done = 0;
  while (done < size) {
    const ssize_t n =
        ::pread(fd, out->data() + done, size - done, static_cast<off_t>(offset + done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

CommitHistory::Summary SummaryOf(const CommitRecord& r, uint64_t offset, uint32_t size) {
  return {r.id(), r.time(), r.user(), r.client(), r.comment(), offset, size};
}

}  // namespace

CommitHistory::CommitHistory(const std::string& dir, size_t keep)
    : path_(dir + "/commits.log"), keep_(keep == 0 ? 1 : keep) {}

CommitHistory::~CommitHistory() {
  if (fd_ >= 0) ::close(fd_);
}

bool CommitHistory::Load(std::string* error) {
  std::error_code ec;
  std::filesystem::create_directories(std::filesystem::path(path_).parent_path(), ec);
  fd_ = ::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0640);
  if (fd_ < 0) {
    *error = Errno("cannot open " + path_);
    return false;
  }
  const off_t end = ::lseek(fd_, 0, SEEK_END);
  uint64_t at = 0;
  std::string header, body;
  while (at + kHeader <= static_cast<uint64_t>(end) && ReadAt(fd_, at, kHeader, &header)) {
    const uint32_t size = GetBe32(reinterpret_cast<const unsigned char*>(header.data()));
    CommitRecord record;
    if (at + kHeader + size > static_cast<uint64_t>(end) ||
        !ReadAt(fd_, at + kHeader, size, &body) || !record.ParseFromString(body)) {
      break;
    }
    summaries_.push_back(SummaryOf(record, at, size));
    nextId_ = std::max(nextId_, record.id() + 1);
    at += kHeader + size;
  }
  if (at != static_cast<uint64_t>(end) && ::ftruncate(fd_, static_cast<off_t>(at)) != 0) {
    *error = Errno("cannot drop a torn record of " + path_);
    return false;
  }
  size_ = at;
  return true;
}

bool CommitHistory::Append(const CommitRecord& record, std::string* error) {
  const std::string framed = Framed(record);
  if (::lseek(fd_, static_cast<off_t>(size_), SEEK_SET) < 0 || !WriteAll(fd_, framed)) {
    *error = Errno("cannot append to " + path_);
    // A partial record would hide the ones after it; it is cut off again.
    if (::ftruncate(fd_, static_cast<off_t>(size_)) != 0) {
      *error += "; and cannot truncate it";
    }
    return false;
  }
  summaries_.push_back(SummaryOf(record, size_, static_cast<uint32_t>(framed.size() - kHeader)));
  size_ += framed.size();
  nextId_ = record.id() + 1;
  return summaries_.size() < 2 * keep_ || Trim(error);
}

std::optional<CommitRecord> CommitHistory::Read(uint64_t id) const {
  for (const Summary& s : summaries_) {
    if (s.id != id) continue;
    std::string body;
    CommitRecord record;
    if (!ReadAt(fd_, s.offset + kHeader, s.size, &body) || !record.ParseFromString(body)) {
      return std::nullopt;
    }
    return record;
  }
  return std::nullopt;
}

bool CommitHistory::Trim(std::string* error) {
  const size_t drop = summaries_.size() - keep_;
  const uint64_t from = summaries_[drop].offset;
  std::string kept;
  if (!ReadAt(fd_, from, size_ - from, &kept)) {
    *error = Errno("cannot read " + path_);
    return false;
  }
  const std::string tmp = path_ + ".tmp";
  const int fd = ::open(tmp.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0640);
  if (fd < 0 || !WriteAll(fd, kept) || ::fsync(fd) != 0 ||
      ::rename(tmp.c_str(), path_.c_str()) != 0) {
    *error = Errno("cannot rewrite " + path_);
    if (fd >= 0) ::close(fd);
    ::unlink(tmp.c_str());
    return false;
  }
  ::close(fd_);
  fd_ = fd;
  summaries_.erase(summaries_.begin(), summaries_.begin() + static_cast<long>(drop));
  for (Summary& s : summaries_) s.offset -= from;
  size_ -= from;
  return true;
}

}  // namespace pbr::mgmt
