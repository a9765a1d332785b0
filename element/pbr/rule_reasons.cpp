#include "element/pbr/rule_reasons.h"

#include "element/middleware/log.h"

namespace pbr {

RuleReasons& RuleReasons::Instance() {
  static RuleReasons* instance = new RuleReasons();  // lives as long as the process
  return *instance;
}

std::string_view StatusName(uint32_t status) {
  switch (status) {
    case 0:
      return "not programmed";
    case 1:
      return "programmed";
    case 2:
      return "failed";
    default:
      return "unknown";
  }
}

void RuleReasons::Bind(vqmw_t* mw) {
  if (mw_ != mw) timer_.reset();
  mw_ = mw;
  if (mw) active_ = true;
}

void RuleReasons::Report(uint16_t id, uint32_t status, std::string_view reason) {
  active_ = true;
  auto it = reasons_.find(id);
  std::string_view before = it == reasons_.end() ? std::string_view() : it->second;
  if (statuses_[id] == status && before == reason) return;
  statuses_[id] = static_cast<uint8_t>(status);
  if (reason.empty() || status == 0) {
    if (it != reasons_.end()) reasons_.erase(it);
  } else if (it == reasons_.end()) {
    reasons_.emplace(id, std::string(reason));
  } else {
    it->second = reason;
  }
  std::string outcome(StatusName(status));
  if (!reason.empty()) outcome.append(": ").append(reason);
  if (Admit()) {
    vqmw::Logger().info("pbr-manager: rule {} {}", id, outcome);
  } else {
    ++suppressed_[outcome];
  }
}

std::string_view RuleReasons::Reason(uint16_t id) const {
  auto it = reasons_.find(id);
  return it == reasons_.end() ? std::string_view() : std::string_view(it->second);
}

void RuleReasons::Warn(std::string_view text, std::string_view kind) {
  if (Admit()) {
    vqmw::Logger().warn("pbr-manager: {}", text);
  } else {
    ++suppressed_["warning: " + std::string(kind)];
  }
}

void RuleReasons::Reset() {
  Summarise();
  reasons_.clear();
  statuses_.fill(0);
  timer_.reset();
  lines_ = 0;
  window_start_ = {};
}

// One more line in the current window, or false when the window's budget is spent (a summary
// is then due at its end).
bool RuleReasons::Admit() {
  const auto now = std::chrono::steady_clock::now();
  if (now - window_start_ >= kWindow) {
    Summarise();
    window_start_ = now;
    lines_ = 0;
  }
  if (lines_ < kLinesPerWindow) {
    ++lines_;
    return true;
  }
  if (mw_ && !timer_) {
    const auto left = window_start_ + kWindow - now;
    timer_ =
        vqmw::StartTimer(mw_, std::chrono::duration_cast<std::chrono::microseconds>(left), [this] {
          timer_.reset();  // the loop keeps the running callback alive
          Summarise();
        });
  }
  return false;
}

void RuleReasons::Summarise() {
  constexpr std::string_view kWarning = "warning: ";
  for (const auto& [outcome, count] : suppressed_) {
    if (outcome.starts_with(kWarning))
      vqmw::Logger().warn("pbr-manager: {} more warnings not logged one by one: {}", count,
                          outcome.substr(kWarning.size()));
    else
      vqmw::Logger().info("pbr-manager: {} more rule changes not logged one by one: {}", count,
                          outcome);
  }
  suppressed_.clear();
}

}  // namespace pbr
