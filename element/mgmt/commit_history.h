// The commit history on disk, $PBR_ELEMENT_STATE_DIR/commits.log: one record per commit, each
// after its 4-byte big-endian length, appended (not synced: the running configuration's journal
// is what makes a commit durable). Ids grow across restarts. Only the newest `keep` records are
// promised; the file is rewritten with them (atomically) once it holds twice as many. A record
// torn by a crash is dropped at load. Only the records' summaries stay in memory.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "element/mgmt/journal.pb.h"

namespace pbr::mgmt {

class CommitHistory {
 public:
  struct Summary {
    uint64_t id;
    int64_t time;
    std::string user, client, comment;
    uint64_t offset;  // of the record's length in the file
    uint32_t size;
  };

  CommitHistory(const std::string& dir, size_t keep);
  ~CommitHistory();
  CommitHistory(const CommitHistory&) = delete;
  CommitHistory& operator=(const CommitHistory&) = delete;

  // Reads the summaries; false with *error when the file exists but cannot be read.
  bool Load(std::string* error);

  uint64_t NextId() const { return nextId_; }
  // Appends a record whose id is NextId().
  bool Append(const CommitRecord& record, std::string* error);

  // The kept summaries, oldest first.
  const std::vector<Summary>& summaries() const { return summaries_; }
  // The whole record of commit `id`; nullopt when it is not kept.
  std::optional<CommitRecord> Read(uint64_t id) const;

 private:
  bool Trim(std::string* error);

  std::string path_;
  size_t keep_;
  int fd_ = -1;
  uint64_t size_ = 0;
  uint64_t nextId_ = 1;
  std::vector<Summary> summaries_;
};

}  // namespace pbr::mgmt
