// The PBR manager's memory backend: keeps the programmed rules by id and shows them in a JSON
// state file. Rules "program" at once: SetEntry reports status 1 (or 2 when an ingress
// interface cannot be named) and DeleteEntry reports 0. Reports and the state file's rewrite
// happen in one deferred call on the middleware loop after the current callback, so a burst of
// changes costs one rewrite and listeners are never called from inside SetEntry/DeleteEntry.
// The rewrite takes time in proportion to all the rules, not to the change: after one that took
// T, the next waits until 4T have passed, so that with tens of thousands of rules a run of
// commits is not held up behind rewrites (their reports wait with the file).
// Everything runs on the loop's thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "element/middleware/loop.h"
#include "element/pbr/rule_json.h"
#include "platform/pbr_client.h"

namespace pbr {

class MemoryBackend final : public PbrClient {
 public:
  // Bound to the loop of `mw` (not owned; must outlive the backend). Replaces `state_path` at
  // once with an empty view, so that rules of an earlier run are never shown.
  MemoryBackend(vqmw_t* mw, zlog_category_t* category, std::string state_path);
  ~MemoryBackend() override;

  Error SetEntry(const uint16_t& id, const Entry& entry) override;
  Error DeleteEntry(const uint16_t& id) override;
  // `listener` is not owned; null stops the reports. Reports go to the listener registered when
  // they are delivered.
  Error RegisterStatusListener(PbrStatusItf* listener) override;

 private:
  // A status report, with its reason (empty unless failed), as delivered after the rewrite.
  struct Pending {
    uint16_t id;
    uint32_t status;
    std::string reason;
  };
  void Report(uint16_t id, uint32_t status, std::string reason);
  void ScheduleFlush();
  void Flush();
  void WriteState();

  vqmw_t* mw_;
  zlog_category_t* category_;
  std::string state_path_;
  std::map<uint16_t, ShownRule> rules_;  // what the state file shows, by id
  PbrStatusItf* listener_ = nullptr;
  std::vector<Pending> reports_;  // in the order of the calls
  bool state_dirty_ = false;
  bool flush_scheduled_ = false;
  static constexpr int kRestPerWrite = 4;
  std::chrono::steady_clock::time_point next_write_;  // earliest start of the next rewrite
  std::unique_ptr<vqmw::Source> timer_;               // a flush waiting for next_write_
  // Deferred calls hold a weak reference: a backend destroyed before its flush is left alone.
  std::shared_ptr<MemoryBackend*> self_;
};

}  // namespace pbr
