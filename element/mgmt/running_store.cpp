#include "element/mgmt/running_store.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>

namespace pbr::mgmt {
namespace {

constexpr size_t kHeader = 8;  // 4-byte big-endian length, 4-byte big-endian FNV-1a checksum

uint32_t Checksum(std::string_view data) {
  uint32_t h = 2166136261u;
  for (unsigned char c : data) h = (h ^ c) * 16777619u;
  return h;
}

void PutBe32(unsigned char* p, uint32_t v) {
  p[0] = static_cast<unsigned char>(v >> 24);
  p[1] = static_cast<unsigned char>(v >> 16);
  p[2] = static_cast<unsigned char>(v >> 8);
  p[3] = static_cast<unsigned char>(v);
}

uint32_t GetBe32(const unsigned char* p) {
  return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}

std::string Errno(const std::string& what) {
  return what + ": " + std::strerror(errno);
}

}  // namespace

RunningStore::RunningStore(const std::string& dir, uint64_t compactFrom)
    : snapshot_(dir), journalPath_(dir + "/running.journal"), compactFrom_(compactFrom) {}

RunningStore::~RunningStore() {
  if (journalFd_ >= 0) ::close(journalFd_);
}

bool RunningStore::OpenJournal(std::string* error) {
  std::error_code ec;
  std::filesystem::create_directories(std::filesystem::path(journalPath_).parent_path(), ec);
  journalFd_ = ::open(journalPath_.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0640);
  if (journalFd_ < 0) *error = Errno("cannot open " + journalPath_);
  return journalFd_ >= 0;
}

bool RunningStore::Load(Datastore* store, std::string* error) {
  std::optional<std::string> text = snapshot_.Read(error);
  if (!error->empty()) return false;
  if (text) {
    CommitError bad;
    if (!store->LoadRunning(*text, &bad)) {
      *error =
          snapshot_.path() + ": " + bad.message + (bad.path.empty() ? "" : " (" + bad.path + ")");
      return false;
    }
    snapshotBytes_ = text->size();
  }
  if (!OpenJournal(error)) return false;

  std::string journal;
  char buf[1 << 16];
  ssize_t n;
  while ((n = ::pread(journalFd_, buf, sizeof buf, static_cast<off_t>(journal.size()))) > 0) {
    journal.append(buf, static_cast<size_t>(n));
  }
  size_t at = 0;
  while (journal.size() - at >= kHeader) {
    const auto* p = reinterpret_cast<const unsigned char*>(journal.data() + at);
    const uint32_t len = GetBe32(p);
    if (journal.size() - at - kHeader < len) break;
    const std::string payload = journal.substr(at + kHeader, len);
    JournalRecord record;
    if (Checksum(payload) != GetBe32(p + 4) || !record.ParseFromString(payload)) break;
    CommitError bad;
    if (!store->Replay(record, &bad)) {
      *error = journalPath_ + ": " + bad.message;
      return false;
    }
    at += kHeader + len;
  }
  // What follows the last whole record was being written when the server stopped.
  if (at < journal.size() && ::ftruncate(journalFd_, static_cast<off_t>(at)) != 0) {
    *error = Errno("cannot truncate " + journalPath_);
    return false;
  }
  journalBytes_ = at;
  return true;
}

bool RunningStore::Append(JournalRecord record, std::string* error) {
  if (journalFd_ < 0 && !OpenJournal(error)) return false;
  // The header goes in front of the payload without copying a whole configuration again.
  std::string frame(kHeader, '\0');
  frame.reserve(kHeader + record.ByteSizeLong());
  record.AppendToString(&frame);
  const std::string_view payload = std::string_view(frame).substr(kHeader);
  PutBe32(reinterpret_cast<unsigned char*>(frame.data()), static_cast<uint32_t>(payload.size()));
  PutBe32(reinterpret_cast<unsigned char*>(frame.data()) + 4, Checksum(payload));
  size_t done = 0;
  while (done < frame.size()) {
    const ssize_t n = ::write(journalFd_, frame.data() + done, frame.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      *error = Errno("cannot write " + journalPath_);
      // Drop the partial record, so that later records stay readable.
      if (::ftruncate(journalFd_, static_cast<off_t>(journalBytes_)) != 0) {
        *error += "; cannot truncate it";
      }
      return false;
    }
    done += static_cast<size_t>(n);
  }
  if (::fdatasync(journalFd_) != 0) {
    *error = Errno("cannot sync " + journalPath_);
    return false;
  }
  journalBytes_ += frame.size();
  if (record.whole()) {
    wholeJson_ = std::move(*record.mutable_json());
  } else {
    wholeJson_.clear();
  }
  compactionDue_ =
      compactionDue_ || record.whole() || journalBytes_ > std::max(compactFrom_, snapshotBytes_);
  return true;
}

bool RunningStore::Compact(const Datastore& store, std::string* error) {
  const std::string text = wholeJson_.empty() ? store.RunningJson() : std::move(wholeJson_);
  wholeJson_.clear();
  if (!snapshot_.Write(text, error)) return false;
  // running.json now holds every record; replaying them on it would change nothing, so a
  // crash before this truncation is harmless.
  if (::ftruncate(journalFd_, 0) != 0 || ::fsync(journalFd_) != 0) {
    *error = Errno("cannot empty " + journalPath_);
    return false;
  }
  journalBytes_ = 0;
  snapshotBytes_ = text.size();
  compactionDue_ = false;
  return true;
}

}  // namespace pbr::mgmt
