// The PBR manager's memory backend: keeps the programmed rules by id and shows them in a JSON
// state file. Rules "program" at once: SetEntry reports status 1 (or 2 when an ingress
// interface cannot be named) and DeleteEntry reports 0. Reports and the state file's rewrite
// happen in one deferred call on the middleware loop after the current callback, so a burst of
// changes costs one rewrite and listeners are never called from inside SetEntry/DeleteEntry.
// Everything runs on the loop's thread.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

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
  void Report(uint16_t id, uint32_t status);
  void ScheduleFlush();
  void Flush();
  void WriteState();

  vqmw_t* mw_;
  zlog_category_t* category_;
  std::string state_path_;
  std::map<uint16_t, ShownRule> rules_;  // what the state file shows, by id
  PbrStatusItf* listener_ = nullptr;
  std::vector<std::pair<uint16_t, uint32_t>> reports_;  // in the order of the calls
  bool state_dirty_ = false;
  bool flush_scheduled_ = false;
  // Deferred calls hold a weak reference: a backend destroyed before its flush is left alone.
  std::shared_ptr<MemoryBackend*> self_;
};

}  // namespace pbr
