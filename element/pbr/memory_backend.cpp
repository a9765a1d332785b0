// The memory backend of the PBR manager client.
#include "element/pbr/memory_backend.h"

#include <cstring>

#include "element/middleware/log.h"
#include "element/middleware/loop.h"
#include "element/pbr/atomic_file.h"
#include "element/pbr/intf_names.h"
#include "element/pbr/rule_reasons.h"
#include "element/pbr/rule_status.h"
#include "platform/zlog.h"

#define PBR_TRACE(category, ...)                                                            \
  zlog(category, __FILE_NAME__, sizeof(__FILE_NAME__) - 1, __func__, std::strlen(__func__), \
       __LINE__, 10, __VA_ARGS__)

namespace pbr {

MemoryBackend::MemoryBackend(vqmw_t* mw, zlog_category_t* category, std::string state_path)
    : mw_(mw),
      category_(category),
      state_path_(std::move(state_path)),
      self_(std::make_shared<MemoryBackend*>(this)) {
  RuleReasons::Instance().Bind(mw_);
  WriteState();
}

MemoryBackend::~MemoryBackend() {
  RuleReasons::Instance().Bind(nullptr);
}

Error MemoryBackend::SetEntry(const uint16_t& id, const Entry& entry) {
  uint32_t status = kRuleProgrammed;
  std::string reason;
  std::vector<std::string> ingress;
  MatchIngressPorts ports({});
  if (entry.getMatch(ports) == PBR_OK) {
    for (const limid_t& port : ports.getPorts()) {
      if (auto name = IntfNameFromLimid(port)) {
        ingress.push_back(std::move(*name));
      } else {
        // An identifier that limid_from_intfname never handed out.
        vqmw::Logger().warn("pbr-manager: rule {}: unknown ingress interface id {:#x}", id,
                            port.value);
        ingress.push_back("limid:" + std::to_string(port.value));
        status = kRuleFailed;
        reason = "unknown ingress interface id " + std::to_string(port.value);
      }
    }
  }
  rules_.insert_or_assign(id, ShownRule::Of(entry, status, std::move(ingress)));
  PBR_TRACE(category_, "memory backend: rule %u set, status %u", id, status);
  Report(id, status, std::move(reason));
  return PBR_OK;
}

Error MemoryBackend::DeleteEntry(const uint16_t& id) {
  // Deleting an absent rule is not an error: the outcome, "not programmed", is the same.
  bool existed = rules_.erase(id) > 0;
  PBR_TRACE(category_, "memory backend: rule %u deleted%s", id, existed ? "" : " (was absent)");
  Report(id, kRuleNotProgrammed, {});
  return PBR_OK;
}

Error MemoryBackend::RegisterStatusListener(PbrStatusItf* listener) {
  listener_ = listener;
  return PBR_OK;
}

void MemoryBackend::Report(uint16_t id, uint32_t status, std::string reason) {
  reports_.push_back({id, status, std::move(reason)});
  state_dirty_ = true;
  ScheduleFlush();
}

void MemoryBackend::ScheduleFlush() {
  if (flush_scheduled_) return;
  flush_scheduled_ = true;
  auto flush = [self = std::weak_ptr<MemoryBackend*>(self_)] {
    if (auto backend = self.lock()) (*backend)->Flush();
  };
  const auto now = std::chrono::steady_clock::now();
  if (now >= next_write_) {
    vqmw::Defer(mw_, std::move(flush));
  } else {
    timer_ = vqmw::StartTimer(
        mw_, std::chrono::duration_cast<std::chrono::microseconds>(next_write_ - now),
        std::move(flush));
  }
}

// The state file first, so that a listener told "programmed" finds the rule in it.
void MemoryBackend::Flush() {
  flush_scheduled_ = false;
  if (state_dirty_) {
    const auto start = std::chrono::steady_clock::now();
    WriteState();
    const auto end = std::chrono::steady_clock::now();
    next_write_ = end + (end - start) * kRestPerWrite;
  }
  std::vector<Pending> reports;
  reports.swap(reports_);
  for (const Pending& r : reports) {
    RuleReasons::Instance().Report(r.id, r.status, r.reason);
    if (listener_ != nullptr) listener_->StatusUpdateCb(r.id, r.status);
  }
}

void MemoryBackend::WriteState() {
  state_dirty_ = false;
  constexpr size_t kPart = 64 << 10;
  auto next = rules_.begin();
  bool started = false;
  auto fill = [&](std::string* part) {
    if (!started) {
      *part += "{\n  \"backend\": \"memory\",\n  \"rules\": [";
      started = true;
    }
    for (; next != rules_.end() && part->size() < kPart; ++next) {
      *part += next == rules_.begin() ? "\n    " : ",\n    ";
      AppendRuleJson(next->first, next->second, part);
    }
    if (next != rules_.end()) return true;
    *part += rules_.empty() ? "]\n}\n" : "\n  ]\n}\n";
    return false;
  };
  std::string error;
  if (!WriteFileAtomically(state_path_, fill, &error))
    vqmw::Logger().error("pbr-manager: cannot show the rules: {}", error);
}

}  // namespace pbr
