// The running configuration on disk, in $PBR_ELEMENT_STATE_DIR: running.json, the whole
// configuration as of the last compaction (replaced atomically: temporary file, sync, rename),
// and running.journal, one synced record per commit since then. A commit costs an append of
// what it changed, not a rewrite of the whole configuration; once the journal outgrows the
// configuration, the configuration is rewritten and the journal emptied. Records hold absolute
// states, so replaying one that the configuration already holds changes nothing, and a crash at
// any moment leaves the old or the new configuration: a record torn by a crash is dropped.
// Compaction is a separate step, so that the server can answer a commit before it.
#pragma once

#include <cstdint>
#include <string>

#include "element/mgmt/datastore.h"
#include "element/mgmt/journal.pb.h"
#include "element/mgmt/running_file.h"

namespace pbr::mgmt {

class RunningStore {
 public:
  // The journal is compacted once it holds more than `compactFrom` bytes and more than the
  // configuration itself.
  explicit RunningStore(const std::string& dir, uint64_t compactFrom = 4u << 20);
  ~RunningStore();
  RunningStore(const RunningStore&) = delete;
  RunningStore& operator=(const RunningStore&) = delete;

  // Loads running.json and replays the journal into `store`. False with *error when either is
  // unreadable or invalid (the files are then left as they are).
  bool Load(Datastore* store, std::string* error);

  // Makes a commit durable: appends its record and syncs it.
  bool Append(JournalRecord record, std::string* error);

  // Whether the journal has outgrown the configuration (or holds a whole configuration).
  bool CompactionDue() const { return compactionDue_; }

  // Rewrites running.json from `store`, which holds every appended commit, and empties the
  // journal. When the last record holds a whole configuration, its text is written as it is.
  bool Compact(const Datastore& store, std::string* error);

  const std::string& path() const { return snapshot_.path(); }

 private:
  bool OpenJournal(std::string* error);

  RunningFile snapshot_;
  std::string journalPath_;
  int journalFd_ = -1;
  uint64_t compactFrom_;
  uint64_t journalBytes_ = 0;
  uint64_t snapshotBytes_ = 0;
  bool compactionDue_ = false;
  // The configuration of the last record when that record is whole: what a compaction writes.
  std::string wholeJson_;
};

}  // namespace pbr::mgmt
