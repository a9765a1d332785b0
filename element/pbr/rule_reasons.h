// Why each rule has the hardware status its PBR manager backend last reported, for the
// operational view's hw-reason: empty for a programmed rule, otherwise a short operator-facing
// text ("next-hop link down", the kernel's refusal text, ...). One registry per process, shared
// by the backend that writes it and the management framework that serves it.
//
// Report also logs each change of status or reason at info level, one line per rule, and at most
// kLinesPerWindow lines per second: beyond that, changes are counted by outcome and summarised in
// one line per outcome when the window ends, so that a bulk failure of tens of thousands of rules
// writes a handful of lines. Everything runs on the middleware loop's thread.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

#include "element/middleware/loop.h"

namespace pbr {

class RuleReasons {
 public:
  static constexpr int kLinesPerWindow = 20;
  static constexpr std::chrono::seconds kWindow{1};

  static RuleReasons& Instance();

  // The loop that summaries are scheduled on. Backends bind theirs when they start and null when
  // they are destroyed (a pending summary then waits for the next log line).
  void Bind(vqmw_t* mw);

  // Rule `id` now has `status` (0, 1, 2) because of `reason`. Status 0 forgets the rule.
  void Report(uint16_t id, uint32_t status, std::string_view reason);
  // The reason last reported for `id`; empty when none is known.
  std::string_view Reason(uint16_t id) const;
  // Whether any backend has reported through this registry (the process has a PBR manager).
  bool Active() const { return active_; }

  // Logs a warning (a kernel refusal, for instance) under the same per-second budget; beyond it,
  // warnings are counted by `kind` ("the kernel refused a request: Operation not permitted").
  void Warn(std::string_view text, std::string_view kind);

  // Forgets every rule and flushes pending summaries; for tests.
  void Reset();

 private:
  bool Admit();
  void Summarise();

  bool active_ = false;
  vqmw_t* mw_ = nullptr;
  std::array<uint8_t, 65536> statuses_{};              // by id; 0 also for never reported
  std::unordered_map<uint16_t, std::string> reasons_;  // the non-empty ones
  std::chrono::steady_clock::time_point window_start_{};
  int lines_ = 0;
  std::map<std::string, uint64_t> suppressed_;  // outcome text -> count
  std::unique_ptr<vqmw::Source> timer_;
};

// The status as operators read it: "not programmed", "programmed", "failed".
std::string_view StatusName(uint32_t status);

}  // namespace pbr
