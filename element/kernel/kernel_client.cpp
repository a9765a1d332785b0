#include "element/kernel/kernel_client.h"

#include <arpa/inet.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "element/pbr/rule_reasons.h"

namespace pbr::element {
namespace {

// zlog levels.
constexpr int kDebug = 20;
constexpr int kInfo = 40;
constexpr int kWarn = 80;
constexpr int kError = 100;

constexpr auto kSyncRetry = std::chrono::seconds(1);

constexpr const char* kLinkDown = "next-hop link down";
constexpr const char* kNoSubnet = "next hop has no address on a connected subnet";
constexpr const char* kLocalNextHop = "next hop is a local address";
constexpr const char* kIngressAbsent = "ingress interface absent";
constexpr const char* kNotPermitted = "not permitted: needs CAP_NET_ADMIN";

// What an operator reads for a kernel refusal: its extended-ack text when it gave one.
std::string RefusalText(int error, const std::string& message) {
  if (error == -EPERM || error == -EACCES) return kNotPermitted;
  return message.empty() ? std::strerror(-error) : message;
}

void Warn(const std::string& text, const std::string& kind) {
  RuleReasons::Instance().Warn(text, kind);
}

// A kernel refusal, logged with what was refused and summarised by its reason.
void WarnRefusal(const std::string& what, int error, const std::string& message) {
  const std::string reason = RefusalText(error, message);
  Warn("the kernel refused " + what + ": " + reason, "the kernel refused a request: " + reason);
}

}  // namespace

#define KLOG(level, ...)                                                                           \
  do {                                                                                             \
    if (log_)                                                                                      \
      zlog(log_, __FILE__, sizeof(__FILE__) - 1, __func__, std::strlen(__func__), __LINE__, level, \
           __VA_ARGS__);                                                                           \
  } while (0)

KernelClient::KernelClient(vqmw_t* mw, zlog_category_t* log, Options options, LayOutFn lay_out)
    : mw_(mw), log_(log), options_(std::move(options)), lay_out_(std::move(lay_out)) {
  RuleReasons::Instance().Bind(mw_);
  Start();
}

KernelClient::~KernelClient() {
  RuleReasons::Instance().Bind(nullptr);
  *alive_ = false;
  grace_timer_.reset();
  retry_timer_.reset();
  monitor_.reset();
  channel_.reset();
}

void KernelClient::Start() {
  channel_ = std::make_unique<NetlinkChannel>(mw_);
  if (int error = channel_->Open()) {
    broken_reason_ = RefusalText(
        error, std::string("cannot open a routing netlink socket: ") + std::strerror(-error));
    Warn(broken_reason_ + "; every rule fails", broken_reason_);
    phase_ = Phase::kBroken;
    return;
  }
  monitor_ = std::make_unique<NetlinkMonitor>(
      mw_, [this](const nlmsghdr* nlh) { OnNotification(nlh); },
      [this] {
        KLOG(kWarn, "kernel notifications were lost; resynchronising");
        Resync();
      });
  if (int error = monitor_->Open(channel_->PortId())) {
    KLOG(kError, "cannot subscribe to routing notifications: %s; link changes go unnoticed",
         std::strerror(-error));
    monitor_.reset();
  }
  grace_timer_ = vqmw::StartTimer(mw_, options_.leftover_grace, [this] { RequestSweep(); });
  StartSync();
}

// Dumps links, then rules, then routes. The channel sends each dump after everything queued
// before it has been answered, so the dumps see the effect of every earlier request.
void KernelClient::StartSync() {
  phase_ = Phase::kSyncing;
  sync_error_ = 0;
  dumped_links_.clear();
  dumped_addresses_.clear();
  dumped_rules_.clear();
  dumped_routes_.clear();
  char buf[kMaxRequestSize];
  auto note_error = [this](int error, const std::string&) {
    if (error && !sync_error_) sync_error_ = error;
  };
  channel_->Dump(
      PutDump(buf, RTM_GETLINK),
      [this](const nlmsghdr* nlh) {
        if (auto link = ParseLink(nlh)) dumped_links_[link->index] = {link->flags, link->name};
      },
      note_error);
  channel_->Dump(
      PutDump(buf, RTM_GETADDR),
      [this](const nlmsghdr* nlh) {
        if (auto address = ParseAddress(nlh)) dumped_addresses_.push_back(*address);
      },
      note_error);
  channel_->Dump(
      PutDump(buf, RTM_GETRULE),
      [this](const nlmsghdr* nlh) {
        if (auto rule = ParseRule(nlh)) dumped_rules_.emplace(*rule, next_serial_++);
      },
      note_error);
  channel_->Dump(
      PutDump(buf, RTM_GETROUTE),
      [this](const nlmsghdr* nlh) {
        if (auto info = ParseRoute(nlh)) dumped_routes_.emplace(info->route.table, *info);
      },
      [this](int error, const std::string&) { FinishSync(sync_error_ ? sync_error_ : error); });
}

void KernelClient::FinishSync(int error) {
  if (error) {
    KLOG(kWarn, "reading the kernel's rules failed: %s; retrying", std::strerror(-error));
    retry_timer_ = vqmw::StartTimer(mw_, kSyncRetry, [this] { StartSync(); });
    return;
  }
  if (resync_again_) {
    resync_again_ = false;
    StartSync();
    return;
  }
  links_ = std::move(dumped_links_);
  addresses_ = std::move(dumped_addresses_);
  leftover_rules_ = std::move(dumped_rules_);
  leftover_routes_ = std::move(dumped_routes_);
  KLOG(kInfo, "the kernel holds %zu rules and %zu routes of ours", leftover_rules_.size(),
       leftover_routes_.size());
  // Forget what we believed; members and next hops claim what the kernel really holds.
  for (auto& [id, m] : members_) {
    m.rules.clear();
    m.rules_failed = false;
    dirty_.insert(id);
  }
  for (auto& [table, hop] : hops_) {
    hop.route.reset();
    hop.oif = 0;
    hop.blocked = hop.verify = false;
    dirty_hops_.insert(table);
  }
  guard_ = false;
  guard_dirty_ = true;
  phase_ = Phase::kReady;
  Reconcile();
  if (swept_ || sweep_requested_) SweepLeftovers();
}

void KernelClient::Resync() {
  if (phase_ == Phase::kBroken) return;
  if (phase_ == Phase::kSyncing) {
    resync_again_ = true;
    return;
  }
  StartSync();
}

Error KernelClient::SetEntry(const uint16_t& id, const Entry& entry) {
  Member& m = members_[id];
  IndexClass(id, m, false);
  IndexHop(id, m, false);
  m.want = lay_out_ ? lay_out_(id, entry) : LayOut(id, entry, options_.interface_names);
  // A new request deserves a fresh attempt.
  m.rules_failed = false;
  IndexClass(id, m, true);
  IndexHop(id, m, true);
  MarkDirty(id);
  RequestSweep();
  return m.want->error.empty() ? PBR_OK : PBR_ERR_INVALID;
}

Error KernelClient::DeleteEntry(const uint16_t& id) {
  auto it = members_.find(id);
  if (it != members_.end() && it->second.want) {
    IndexClass(id, it->second, false);
    IndexHop(id, it->second, false);
    it->second.want.reset();
    MarkDirty(id);
  }
  RequestSweep();
  return PBR_OK;
}

Error KernelClient::RegisterStatusListener(PbrStatusItf* listener) {
  listener_ = listener;
  return PBR_OK;
}

bool KernelClient::Settled() const {
  return phase_ != Phase::kSyncing && dirty_.empty() && dirty_hops_.empty() && !guard_dirty_ &&
         !reconcile_scheduled_ && !sweep_requested_ && (!channel_ || channel_->Idle());
}

void KernelClient::IndexClass(uint16_t id, const Member& m, bool add) {
  if (!m.want || m.want->rules.empty()) return;
  uint32_t priority = m.want->rules.front().priority;
  // The guard goes with the first rule and with the last.
  if (classes_.empty() == add) guard_dirty_ = true;
  if (add) {
    classes_[priority].emplace(m.want->priority, id);
    return;
  }
  auto it = classes_.find(priority);
  if (it == classes_.end()) return;
  it->second.erase({m.want->priority, id});
  if (it->second.empty()) classes_.erase(it);
}

void KernelClient::IndexHop(uint16_t id, const Member& m, bool add) {
  auto table = HopOf(m);
  if (!table) return;
  NextHop& hop = hops_[*table];
  if (add) {
    hop.want = *m.want->route;
    hop.users.insert(id);
    // A request deserves a fresh attempt at a refused or withdrawn route; the kernel's answer
    // tells whether the next hop is usable now.
    if (hop.blocked) {
      hop.blocked = false;
      hop.verify = true;
    }
  } else {
    hop.users.erase(id);
  }
  // A next hop in place and in use is none of the reconcile pass's business: a member's status
  // reads it directly. That keeps one rule's commit from walking every user of its next hop.
  if (hop.users.empty() || hop.route != hop.want || hop.verify) MarkHopDirty(*table);
}

void KernelClient::MarkDirty(uint16_t id) {
  dirty_.insert(id);
  ScheduleReconcile();
}

void KernelClient::MarkHopDirty(uint32_t table) {
  dirty_hops_.insert(table);
  ScheduleReconcile();
}

void KernelClient::ScheduleReconcile() {
  if (reconcile_scheduled_) return;
  reconcile_scheduled_ = true;
  vqmw::Defer(mw_, [this, alive = std::weak_ptr<bool>(alive_)] {
    if (!alive.expired()) Reconcile();
  });
}

std::vector<FibRule> KernelClient::Wanted(const Member& m) const {
  if (!m.want || !m.want->error.empty() || m.rules_failed) return {};
  return m.want->rules;
}

std::optional<uint32_t> KernelClient::HopOf(const Member& m) {
  if (!m.want || !m.want->error.empty() || !m.want->route) return std::nullopt;
  return m.want->route->table;
}

void KernelClient::Reconcile() {
  reconcile_scheduled_ = false;
  if (phase_ == Phase::kSyncing || (dirty_.empty() && dirty_hops_.empty() && !guard_dirty_)) return;
  std::vector<uint16_t> ids(dirty_.begin(), dirty_.end());
  std::vector<uint32_t> tables(dirty_hops_.begin(), dirty_hops_.end());
  dirty_.clear();
  dirty_hops_.clear();
  auto evaluate_all = [&] {
    for (uint16_t id : ids) Evaluate(id);
    for (uint32_t table : tables) HopFinished(table);
  };
  if (phase_ == Phase::kBroken) {
    guard_dirty_ = false;
    evaluate_all();
    return;
  }
  for (uint16_t id : ids) ClaimLeftovers(id, members_[id]);
  const bool want_guard = !classes_.empty();
  if (guard_dirty_ && want_guard && !guard_) {
    auto it = leftover_rules_.find(LocalTrafficGuard());
    if (it != leftover_rules_.end()) {
      leftover_rules_.erase(it);
      guard_ = true;
    }
  }
  for (uint32_t table : tables) {
    auto hop = hops_.find(table);
    if (hop != hops_.end()) ClaimLeftoverRoute(hop->second);
  }

  // The kernel keeps rules of equal priority in insertion order and inserts after the last one.
  // Walk each touched priority in the wanted order: members already installed in that order stay;
  // from the first one that is new, changed or out of order on, each is (re)added at the end.
  struct Placement {
    uint32_t kernel_priority;
    uint32_t priority;
    uint16_t id;
  };
  std::set<uint32_t> touched;
  for (uint16_t id : ids) {
    auto wanted = Wanted(members_[id]);
    if (!wanted.empty()) touched.insert(wanted.front().priority);
  }
  std::vector<Placement> placements;
  std::set<uint16_t> leaving;  // members whose installed rules go in this pass
  auto place = [&] {
    placements.clear();
    leaving.clear();
    for (uint32_t kernel_priority : touched) {
      uint64_t last = 0;
      bool moved = false;
      for (const auto& [priority, id] : classes_[kernel_priority]) {
        Member& x = members_[id];
        auto wanted = Wanted(x);
        if (wanted.empty()) continue;
        if (!moved && !x.replace && x.rules == wanted && x.serial > last) {
          last = x.serial;
          continue;
        }
        moved = true;
        placements.push_back({kernel_priority, priority, id});
        leaving.insert(id);
      }
    }
    for (uint16_t id : ids) {
      Member& m = members_[id];
      if (Wanted(m).empty() && !m.rules.empty()) leaving.insert(id);
    }
  };
  // Until no delete of this pass would hit a rule that stays: such rules are re-added too.
  for (bool again = true; again;) {
    place();
    again = false;
    for (uint16_t id : leaving) {
      for (const FibRule& rule : members_[id].rules) {
        if (MarkVictims(rule, leaving)) {
          touched.insert(rule.priority);
          again = true;
        }
      }
    }
  }
  // Descending kernel priority: each add then lands at the head of the kernel's list.
  std::sort(placements.begin(), placements.end(), [](const Placement& a, const Placement& b) {
    if (a.kernel_priority != b.kernel_priority) return a.kernel_priority > b.kernel_priority;
    return std::pair(a.priority, a.id) < std::pair(b.priority, b.id);
  });

  // Routes first: a rule is added only after the route of the table it looks up.
  std::vector<std::pair<uint32_t, DefaultRoute>> route_deletes;
  for (uint32_t table : tables) {
    auto it = hops_.find(table);
    if (it == hops_.end()) continue;
    NextHop& hop = it->second;
    if (!hop.users.empty() && !hop.blocked && IsLocalAddress(hop.want.gateway)) {
      // The kernel accepts it, but such a route sends the traffic back to the router itself.
      hop.blocked = true;
      hop.reason = kLocalNextHop;
    }
    if (!hop.users.empty() && !hop.blocked) {
      if (hop.route != hop.want || hop.verify) ReplaceRoute(table);
    } else if (hop.route) {
      route_deletes.emplace_back(table, *hop.route);
      hop.route.reset();
    }
    hop.verify = false;
  }
  if (guard_dirty_ && want_guard && !guard_) SendGuard(true);
  std::vector<std::pair<uint16_t, FibRule>> rule_deletes;
  for (uint16_t id : ids) {
    Member& m = members_[id];
    if (Wanted(m).empty() && !m.rules.empty()) {
      for (auto& rule : m.rules) rule_deletes.emplace_back(id, rule);
      m.rules.clear();
    }
  }
  for (const auto& p : placements) {
    Member& x = members_[p.id];
    auto old = std::move(x.rules);
    x.rules = Wanted(x);
    x.serial = next_serial_++;
    x.replace = false;
    for (const auto& rule : x.rules) AddRule(p.id, rule);
    // Deleting a rule identical to the one just added removes the older copy: the kernel deletes
    // the first match and the new copy sits after it.
    for (auto& rule : old) rule_deletes.emplace_back(p.id, rule);
  }
  // Ascending priority: the kernel finds each rule to delete near the head of its list. The more
  // specific first, so that no delete of a less specific rule can hit them.
  std::stable_sort(rule_deletes.begin(), rule_deletes.end(), [](const auto& a, const auto& b) {
    if (a.second.priority != b.second.priority) return a.second.priority < b.second.priority;
    return Specificity(a.second) > Specificity(b.second);
  });
  for (const auto& [id, rule] : rule_deletes) DeleteRule(id, rule);
  if (guard_dirty_ && !want_guard && guard_) SendGuard(false);
  guard_dirty_ = false;
  // Last: no rule looks up these tables any more.
  for (const auto& [table, route] : route_deletes) DeleteRoute(table, route);

  evaluate_all();
}

bool KernelClient::MarkVictims(const FibRule& rule, const std::set<uint16_t>& leaving) {
  if (Specificity(rule) == 3) return false;  // nothing is more specific
  auto cls = classes_.find(rule.priority);
  if (cls == classes_.end()) return false;
  bool marked = false;
  for (const auto& [priority, id] : cls->second) {
    Member& y = members_[id];
    if (leaving.count(id) || y.replace) continue;
    for (const FibRule& other : y.rules) {
      if (other != rule && DeleteMatches(rule, other)) {
        y.replace = true;
        marked = true;
        break;
      }
    }
  }
  return marked;
}

void KernelClient::SendGuard(bool add) {
  char buf[kMaxRequestSize];
  const FibRule guard = LocalTrafficGuard();
  guard_ = add;
  auto done = [this, add, guard](int error, const std::string& message) {
    if (error == -ENOBUFS) {
      Resync();
    } else if (error && (add || error != -ENOENT)) {
      WarnRefusal(std::string(add ? "to add " : "to delete ") + Describe(guard), error, message);
      if (add) guard_ = false;
    }
  };
  channel_->Send(add ? PutRuleAdd(buf, guard) : PutRuleDelete(buf, guard), std::move(done));
}

void KernelClient::ClaimLeftovers(uint16_t id, Member& m) {
  if (!m.rules.empty() || !m.want || !m.want->error.empty()) return;
  uint64_t serial = 0;
  for (const auto& rule : m.want->rules) {
    auto it = leftover_rules_.find(rule);
    if (it == leftover_rules_.end()) continue;
    serial = std::max(serial, it->second);
    m.rules.push_back(rule);
    leftover_rules_.erase(it);
  }
  m.serial = serial;
  if (!m.rules.empty()) KLOG(kDebug, "rule %u: adopted %zu kernel rules", id, m.rules.size());
}

void KernelClient::ClaimLeftoverRoute(NextHop& hop) {
  if (hop.route || hop.users.empty()) return;
  auto [begin, end] = leftover_routes_.equal_range(hop.want.table);
  for (auto it = begin; it != end; ++it) {
    if (it->second.route != hop.want) continue;
    hop.route = it->second.route;
    hop.oif = it->second.oif;
    if (it->second.linkdown || !LinkUsableNow(hop.oif)) {
      hop.blocked = true;
      hop.reason = kLinkDown;
    }
    KLOG(kDebug, "adopted %s", Describe(*hop.route).c_str());
    leftover_routes_.erase(it);
    return;
  }
}

void KernelClient::RequestSweep() {
  if (swept_ || sweep_requested_) return;
  sweep_requested_ = true;
  // Deferred: the initial configuration arrives as a run of SetEntry calls in one callback;
  // leftovers are judged once all of it is known.
  vqmw::Defer(mw_, [this, alive = std::weak_ptr<bool>(alive_)] {
    if (alive.expired() || phase_ != Phase::kReady) return;  // FinishSync sweeps
    Reconcile();
    SweepLeftovers();
  });
}

void KernelClient::SweepLeftovers() {
  sweep_requested_ = false;
  swept_ = true;
  if (!leftover_rules_.empty() || !leftover_routes_.empty())
    KLOG(kInfo, "removing %zu rules and %zu routes that no rule wants", leftover_rules_.size(),
         leftover_routes_.size());
  // Rules that stay and that a leftover's delete would hit first are re-added before it.
  bool victims = false;
  for (const auto& [rule, serial] : leftover_rules_) victims |= MarkVictims(rule, {});
  if (victims) {
    for (auto& [id, m] : members_)
      if (m.replace) dirty_.insert(id);
    Reconcile();
  }
  std::vector<FibRule> rules;
  for (const auto& [rule, serial] : leftover_rules_) rules.push_back(rule);
  std::stable_sort(rules.begin(), rules.end(), [](const FibRule& a, const FibRule& b) {
    return Specificity(a) > Specificity(b);
  });
  for (const FibRule& rule : rules) DeleteRule(std::nullopt, rule);
  for (const auto& [table, info] : leftover_routes_) DeleteRoute(std::nullopt, info.route);
  leftover_rules_.clear();
  leftover_routes_.clear();
}

void KernelClient::AddRule(uint16_t id, const FibRule& rule) {
  char buf[kMaxRequestSize];
  ++members_[id].in_flight;
  channel_->Send(PutRuleAdd(buf, rule), [this, id, rule](int error, const std::string& message) {
    Member& m = members_[id];
    --m.in_flight;
    if (error == -ENOBUFS) {
      Resync();
    } else if (error) {
      WarnRefusal(Describe(rule) + " of rule " + std::to_string(id), error, message);
      auto it = std::find(m.rules.begin(), m.rules.end(), rule);
      if (it != m.rules.end()) {
        m.rules.erase(it);
        m.refusal = RefusalText(error, message);
        m.rules_failed = true;  // withdraw the rest: half a rule is worse than none
        MarkDirty(id);
      }
    }
    Finished(id);
  });
}

void KernelClient::DeleteRule(std::optional<uint16_t> id, const FibRule& rule) {
  char buf[kMaxRequestSize];
  if (id) ++members_[*id].in_flight;
  channel_->Send(PutRuleDelete(buf, rule), [this, id, rule](int error, const std::string& message) {
    if (error == -ENOBUFS) {
      Resync();
    } else if (error && error != -ENOENT) {
      WarnRefusal("to delete " + Describe(rule), error, message);
    }
    if (id) {
      --members_[*id].in_flight;
      Finished(*id);
    }
  });
}

void KernelClient::ReplaceRoute(uint32_t table) {
  char buf[kMaxRequestSize];
  NextHop& hop = hops_[table];
  ++hop.in_flight;
  auto previous = hop.route;
  hop.route = hop.want;
  hop.echo_linkdown = false;
  channel_->Send(
      PutRouteReplace(buf, hop.want),
      [this, table, previous](int error, const std::string& message) {
        NextHop& h = hops_[table];
        --h.in_flight;
        if (error == -ENOBUFS) {
          Resync();
        } else if (h.route != h.want) {
          // Withdrawn by a later request.
        } else if (error) {
          // An unreachable gateway is refused as "invalid"; say why when no subnet holds it.
          h.reason = error == -ENETUNREACH && !OnConnectedSubnet(h.want.gateway)
                         ? kNoSubnet
                         : RefusalText(error, message);
          WarnRefusal(Describe(h.want), error, message);
          // The kernel kept what it had; withdraw that too until the next hop becomes usable.
          h.route = previous;
          h.blocked = true;
          MarkHopDirty(table);
        } else if (h.echo_linkdown || !LinkUsableNow(h.oif)) {
          KLOG(kInfo, "next hop %s: its link is down", AddressText(h.want.gateway).c_str());
          h.reason = kLinkDown;
          h.blocked = true;
          MarkHopDirty(table);
        }
        HopFinished(table);
      },
      [this, table](const nlmsghdr* nlh) {
        auto info = ParseRoute(nlh);
        if (!info || nlh->nlmsg_type != RTM_NEWROUTE) return;
        NextHop& h = hops_[table];
        h.oif = info->oif;
        h.echo_linkdown = info->linkdown;
      });
}

void KernelClient::DeleteRoute(std::optional<uint32_t> table, const DefaultRoute& route) {
  char buf[kMaxRequestSize];
  if (table) ++hops_[*table].in_flight;
  channel_->Send(PutRouteDelete(buf, route),
                 [this, table, route](int error, const std::string& message) {
                   if (error == -ENOBUFS) {
                     Resync();
                   } else if (error && error != -ESRCH && error != -ENOENT) {
                     WarnRefusal("to delete " + Describe(route), error, message);
                   }
                   if (table) {
                     --hops_[*table].in_flight;
                     HopFinished(*table);
                   }
                 });
}

void KernelClient::Finished(uint16_t id) {
  if (members_[id].in_flight == 0) Evaluate(id);
}

// A next hop with nothing in flight: its users may now know their status; an unused one goes.
void KernelClient::HopFinished(uint32_t table) {
  auto it = hops_.find(table);
  if (it == hops_.end() || it->second.in_flight > 0 || dirty_hops_.count(table)) return;
  if (it->second.users.empty()) {
    if (!it->second.route) hops_.erase(it);
    return;
  }
  // Evaluate may not change the users; a copy keeps the walk safe all the same.
  std::vector<uint16_t> users(it->second.users.begin(), it->second.users.end());
  for (uint16_t id : users) Evaluate(id);
}

void KernelClient::Evaluate(uint16_t id) {
  auto it = members_.find(id);
  if (it == members_.end()) return;
  Member& m = it->second;
  if (m.in_flight > 0 || dirty_.count(id) || phase_ == Phase::kSyncing) return;
  if (!m.want) {
    if (!m.rules.empty()) return;
    bool reported = m.reported.has_value();
    members_.erase(it);
    if (reported) {
      RuleReasons::Instance().Report(id, 0, "");
      if (listener_) listener_->StatusUpdateCb(id, 0);
    }
    return;
  }
  uint32_t code = 2;
  std::string reason;
  if (phase_ == Phase::kBroken) {
    reason = broken_reason_;
  } else if (!m.want->error.empty()) {
    reason = m.want->error;
  } else if (m.rules_failed) {
    reason = m.refusal;
  } else {
    code = 1;
    if (auto table = HopOf(m)) {
      auto hop = hops_.find(*table);
      if (hop != hops_.end() && (hop->second.in_flight > 0 || dirty_hops_.count(*table))) return;
      if (hop == hops_.end() || hop->second.route != hop->second.want || hop->second.blocked) {
        code = 2;
        reason = hop != hops_.end() && hop->second.blocked && !hop->second.reason.empty()
                     ? hop->second.reason
                     : "next hop route not installed";
      }
    }
    // Installed, but steering nothing until its ingress interface exists.
    for (const FibRule& rule : m.want->rules) {
      if (code == 1 && !rule.iif.empty() && !LinkExists(rule.iif)) {
        code = 2;
        reason = std::string(kIngressAbsent) + ": " + rule.iif;
      }
    }
  }
  Report(id, m, code, std::move(reason));
}

void KernelClient::Report(uint16_t id, Member& m, uint32_t code, std::string reason) {
  if (m.reported == code && m.reported_reason == reason) return;
  RuleReasons::Instance().Report(id, code, reason);
  bool changed = m.reported != code;
  m.reported = code;
  m.reported_reason = std::move(reason);
  if (changed && listener_) listener_->StatusUpdateCb(id, code);
}

void KernelClient::EvaluateAll() {
  std::vector<uint16_t> ids;
  for (const auto& [id, m] : members_) ids.push_back(id);
  for (uint16_t id : ids) Evaluate(id);
}

bool KernelClient::LinkUsableNow(int index) const {
  auto it = links_.find(index);
  // A link we have not heard of yet: trust the kernel, which accepted the route.
  return it == links_.end() || LinkUsable(it->second.flags);
}

bool KernelClient::LinkExists(const std::string& name) const {
  for (const auto& [index, link] : links_)
    if (link.name == name) return true;
  return false;
}

bool KernelClient::IsLocalAddress(uint32_t addr) const {
  for (const AddressInfo& a : addresses_)
    if (a.addr == addr) return true;
  return false;
}

bool KernelClient::OnConnectedSubnet(uint32_t addr) const {
  for (const AddressInfo& a : addresses_) {
    uint32_t mask = a.len == 0 ? 0 : htonl(~uint32_t{0} << (32 - a.len));
    if ((a.addr & mask) == (addr & mask)) return true;
  }
  return false;
}

void KernelClient::OnNotification(const nlmsghdr* nlh) {
  if (channel_ && nlh->nlmsg_pid == channel_->PortId()) return;  // our own change
  switch (nlh->nlmsg_type) {
    case RTM_NEWLINK:
    case RTM_DELLINK:
      OnLink(nlh);
      return;
    case RTM_NEWADDR:
    case RTM_DELADDR:
      OnAddress(nlh);
      return;
    case RTM_DELROUTE: {
      auto info = ParseRoute(nlh);
      if (!info) return;
      for (auto* pool : {&leftover_routes_, &dumped_routes_}) {
        auto [begin, end] = pool->equal_range(info->route.table);
        for (auto it = begin; it != end; ++it)
          if (it->second.route == info->route) {
            pool->erase(it);
            break;
          }
      }
      auto it = hops_.find(info->route.table);
      if (it != hops_.end() && it->second.route == info->route) {
        KLOG(kInfo, "%s was removed; reinstalling", Describe(info->route).c_str());
        it->second.route.reset();
        MarkHopDirty(it->first);
      }
      return;
    }
    case RTM_DELRULE: {
      auto rule = ParseRule(nlh);
      if (!rule) return;
      if (*rule == LocalTrafficGuard() && guard_) {
        KLOG(kInfo, "%s was removed; reinstalling", Describe(*rule).c_str());
        guard_ = false;
        guard_dirty_ = true;
        ScheduleReconcile();
      }
      for (auto* pool : {&leftover_rules_, &dumped_rules_}) {
        auto it = pool->find(*rule);
        if (it != pool->end()) pool->erase(it);
      }
      auto owner = classes_.find(rule->priority);
      if (owner == classes_.end()) return;
      for (const auto& [priority, id] : owner->second) {
        Member& m = members_[id];
        auto it = std::find(m.rules.begin(), m.rules.end(), *rule);
        if (it == m.rules.end()) continue;
        KLOG(kInfo, "rule %u: %s was removed; reinstalling", id, Describe(*rule).c_str());
        m.rules.erase(it);
        MarkDirty(id);
        return;
      }
      return;
    }
    default:
      return;
  }
}

void KernelClient::OnAddress(const nlmsghdr* nlh) {
  auto address = ParseAddress(nlh);
  if (!address) return;
  bool added = nlh->nlmsg_type == RTM_NEWADDR;
  for (auto* pool : {&addresses_, &dumped_addresses_}) {
    pool->erase(std::remove(pool->begin(), pool->end(), *address), pool->end());
    if (added) pool->push_back(*address);
  }
  for (auto& [table, hop] : hops_) {
    if (hop.users.empty()) continue;
    if (added && (hop.blocked || hop.want.gateway == address->addr)) {
      // A new subnet may make a refused next hop reachable; a new local address may be one.
      hop.blocked = false;
      MarkHopDirty(table);
    } else if (!added && hop.blocked && hop.want.gateway == address->addr) {
      hop.blocked = false;  // no longer the router's own
      MarkHopDirty(table);
    } else if (!added && hop.route && hop.oif == address->index) {
      // The kernel drops routes through the lost subnet without telling; ask again.
      hop.verify = true;
      MarkHopDirty(table);
    }
  }
}

void KernelClient::OnLink(const nlmsghdr* nlh) {
  auto link = ParseLink(nlh);
  if (!link) return;
  auto known = links_.find(link->index);
  bool was = known != links_.end() && LinkUsable(known->second.flags);
  std::string old_name = known != links_.end() ? known->second.name : "";
  bool now = false;
  if (nlh->nlmsg_type == RTM_DELLINK) {
    links_.erase(link->index);
    dumped_links_.erase(link->index);
  } else {
    links_[link->index] = {link->flags, link->name};
    dumped_links_[link->index] = {link->flags, link->name};
    now = LinkUsable(link->flags);
  }
  if (phase_ != Phase::kReady) return;
  // An ingress interface came or went: the rules that name it change status.
  std::string new_name = nlh->nlmsg_type == RTM_DELLINK ? "" : link->name;
  if (old_name != new_name) EvaluateAll();
  if (was == now) return;
  KLOG(kInfo, "link %s (%d) is %s", link->name.c_str(), link->index, now ? "up" : "down");
  for (auto& [table, hop] : hops_) {
    if (!now && hop.route && hop.oif == link->index && !hop.blocked) {
      // Withdraw the route: traffic falls back to the main table instead of a dead link.
      hop.blocked = true;
      hop.reason = kLinkDown;
      MarkHopDirty(table);
    } else if (now && hop.blocked && !hop.users.empty()) {
      hop.blocked = false;
      MarkHopDirty(table);
    }
  }
}

}  // namespace pbr::element
