#include "element/classifier/classifier_client.h"

#include <arpa/inet.h>
#include <linux/rtnetlink.h>
#include <net/if.h>

#include <algorithm>
#include <cstring>

#include "element/kernel/rtnl_codec.h"

namespace pbr::element {
namespace {

// zlog levels.
constexpr int kInfo = 40;
constexpr int kWarn = 80;
constexpr int kError = 100;

static_assert(PBR_CLS_MAIN_MARK == kMainTable);

uint32_t ShapeOf(const pbr_cls_key& key) {
  return uint32_t{key.has_iif} << 16 | uint32_t{key.src_len} << 8 | key.dst_len;
}

uint32_t MaskOf(uint8_t len) {
  return len ? htonl(~0u << (32 - len)) : 0;
}

std::string Bytes(const pbr_cls_key& key) {
  return std::string(reinterpret_cast<const char*>(&key), sizeof key);
}

constexpr uint64_t kNoRank = ~uint64_t{0};

// A key's entry in the datapath: its best rule, and its best rule with a next hop.
template <typename Split>
pbr_cls_value ValueOf(const Split& split) {
  pbr_cls_value value{};
  value.rank = value.hop_rank = kNoRank;
  if (!split.hops.empty()) {
    std::tie(value.hop_rank, std::ignore, value.hop_mark) = *split.hops.begin();
    value.rank = value.hop_rank;
    value.mark = value.hop_mark;
  }
  if (!split.main.empty() && std::get<0>(*split.main.begin()) < value.rank)
    std::tie(value.rank, std::ignore, value.mark) = *split.main.begin();
  return value;
}

bool Same(const pbr_cls_value& a, const pbr_cls_value& b) {
  return a.rank == b.rank && a.mark == b.mark && a.hop_rank == b.hop_rank &&
         a.hop_mark == b.hop_mark;
}

// The inner client's layout of a next hop: one FIB rule sending the hop's mark to its table.
RuleLayout MarkLayout(uint16_t member, const Entry& entry) {
  RuleLayout layout = LayOut(member, entry, [](limid_t) { return std::nullopt; });
  for (FibRule& rule : layout.rules) {
    rule.priority = kMarkRulePriority;
    rule.fwmark = rule.table;
    rule.fwmask = ~0u;
  }
  return layout;
}

}  // namespace

#define CLOG(level, ...)                                                                           \
  do {                                                                                             \
    if (log_)                                                                                      \
      zlog(log_, __FILE__, sizeof(__FILE__) - 1, __func__, std::strlen(__func__), __LINE__, level, \
           __VA_ARGS__);                                                                           \
  } while (0)

bool ClassifierClient::Placement::operator==(const Placement& other) const {
  return rank == other.rank && mark == other.mark && keys.size() == other.keys.size() &&
         std::equal(
             keys.begin(), keys.end(), other.keys.begin(),
             [](const pbr_cls_key& a, const pbr_cls_key& b) { return Bytes(a) == Bytes(b); });
}

ClassifierClient::ClassifierClient(vqmw_t* mw, zlog_category_t* log, Options options)
    : mw_(mw), log_(log), options_(std::move(options)) {
  KernelClient::Options inner;
  inner.leftover_grace = options_.leftover_grace;
  routes_ = std::make_unique<KernelClient>(mw_, log_, std::move(inner), MarkLayout);
  routes_->RegisterStatusListener(this);

  std::string error;
  if (datapath_.Load(&error) == 0) {
    loaded_ = true;
  } else {
    CLOG(kError, "%s; every rule will fail", error.c_str());
  }
  channel_ = std::make_unique<NetlinkChannel>(mw_);
  if (int e = channel_->Open()) {
    CLOG(kError, "cannot open a routing netlink socket: %s", std::strerror(-e));
    links_known_ = true;  // nothing to learn: the program goes nowhere
    return;
  }
  monitor_ = std::make_unique<NetlinkMonitor>(
      mw_, [this](const nlmsghdr* nlh) { OnNotification(nlh); },
      [this] {
        CLOG(kWarn, "link notifications were lost; reading the links again");
        DumpLinks();
      });
  if (int e = monitor_->Open(channel_->PortId())) {
    CLOG(kError, "cannot subscribe to link notifications: %s", std::strerror(-e));
    monitor_.reset();
  }
  DumpLinks();
  grace_timer_ = vqmw::StartTimer(mw_, options_.leftover_grace, [this] {
    configured_ = true;
    ScheduleApply();
  });
}

ClassifierClient::~ClassifierClient() {
  *alive_ = false;
  grace_timer_.reset();
  monitor_.reset();
  channel_.reset();
  routes_.reset();
}

void ClassifierClient::DumpLinks() {
  auto seen = std::make_shared<std::set<int>>();
  char buf[kMaxRequestSize];
  channel_->Dump(
      PutDump(buf, RTM_GETLINK),
      [this, seen](const nlmsghdr* nlh) {
        if (auto link = ParseLink(nlh)) {
          seen->insert(link->index);
          OnLink(link->index, link->name, link->flags, false);
        }
      },
      [this, seen](int error, const std::string&) {
        if (error) {
          CLOG(kWarn, "reading the links failed: %s; retrying", std::strerror(-error));
          DumpLinks();
          return;
        }
        std::vector<int> gone;
        for (const auto& [index, link] : links_)
          if (!seen->count(index)) gone.push_back(index);
        for (int index : gone) OnLink(index, "", 0, true);
        links_known_ = true;
        ScheduleApply();
      });
}

void ClassifierClient::OnNotification(const nlmsghdr* nlh) {
  if (nlh->nlmsg_type != RTM_NEWLINK && nlh->nlmsg_type != RTM_DELLINK) return;
  if (auto link = ParseLink(nlh))
    OnLink(link->index, link->name, link->flags, nlh->nlmsg_type == RTM_DELLINK);
}

void ClassifierClient::OnLink(int index, const std::string& name, unsigned flags, bool gone) {
  auto known = links_.find(index);
  if (gone) {
    if (known == links_.end()) return;
    links_.erase(known);
    attached_links_.erase(index);
    if (loaded_) datapath_.DeleteInterface(index);
    return;
  }
  bool renamed = known == links_.end() || known->second.name != name;
  links_[index] = {name, flags};
  if (!loaded_) return;
  if (renamed) {
    auto id = name_ids_.find(name);
    if (id != name_ids_.end())
      datapath_.SetInterface(index, id->second);
    else
      datapath_.DeleteInterface(index);
  }
  if (attached_ && !(flags & IFF_LOOPBACK) && !attached_links_.count(index)) {
    if (int e = datapath_.Attach(index))
      CLOG(kWarn, "cannot attach the classifier to %s: %s", name.c_str(), std::strerror(-e));
    else
      attached_links_.insert(index);
  }
}

uint32_t ClassifierClient::NameId(const std::string& name) {
  auto [it, added] = name_ids_.emplace(name, static_cast<uint32_t>(name_ids_.size() + 1));
  if (added && loaded_)
    for (const auto& [index, link] : links_)
      if (link.name == name) datapath_.SetInterface(index, it->second);
  return it->second;
}

Error ClassifierClient::SetEntry(const uint16_t& id, const Entry& entry) {
  RuleLayout layout = LayOut(id, entry, options_.interface_names);
  Rule& r = rules_[id];
  auto before = Marks(r);
  r.failed = false;
  r.error = layout.error;
  Placement p;
  p.rank = uint64_t{entry.getPriority()} << 16 | id;
  p.mark = layout.route ? layout.route->table : kMainTable;
  for (const FibRule& rule : layout.rules) {
    pbr_cls_key key{};
    key.has_iif = !rule.iif.empty();
    key.src_len = rule.src.len;
    key.dst_len = rule.dst.len;
    key.ifid = key.has_iif ? NameId(rule.iif) : 0;
    key.src = rule.src.addr;
    key.dst = rule.dst.addr;
    p.keys.push_back(key);
  }
  r.want = std::move(p);
  if (!r.error.empty()) CLOG(kWarn, "rule %u cannot be programmed: %s", id, r.error.c_str());
  Reindex(id, before);
  configured_ = true;
  MarkDirty(id);
  return r.error.empty() ? PBR_OK : PBR_ERR_INVALID;
}

Error ClassifierClient::DeleteEntry(const uint16_t& id) {
  configured_ = true;
  auto it = rules_.find(id);
  if (it == rules_.end() || !it->second.want) {
    ScheduleApply();
    return PBR_OK;
  }
  auto before = Marks(it->second);
  it->second.want.reset();
  Reindex(id, before);
  MarkDirty(id);
  return PBR_OK;
}

Error ClassifierClient::RegisterStatusListener(PbrStatusItf* listener) {
  listener_ = listener;
  return PBR_OK;
}

bool ClassifierClient::Settled() const {
  if (!dirty_.empty() || apply_scheduled_) return false;
  if (!loaded_) return true;
  if (!attached_ || !routes_->Settled()) return false;
  return std::none_of(rules_.begin(), rules_.end(),
                      [this](const auto& entry) { return Pending(entry.second); });
}

// The marks a rule holds a next hop for: the one it wants and the one it is installed with.
std::set<uint32_t> ClassifierClient::Marks(const Rule& r) const {
  std::set<uint32_t> marks;
  if (!loaded_) return marks;
  if (r.want && r.error.empty()) marks.insert(r.want->mark);
  if (r.installed) marks.insert(r.installed->mark);
  return marks;
}

void ClassifierClient::Reindex(uint16_t id, const std::set<uint32_t>& before) {
  auto after = Marks(rules_[id]);
  for (uint32_t mark : after)
    if (!before.count(mark)) Use(mark, id);
  for (uint32_t mark : before)
    if (!after.count(mark)) Release(mark, id);
}

void ClassifierClient::Use(uint32_t mark, uint16_t id) {
  auto [it, added] = hops_.try_emplace(mark);
  it->second.users.insert(id);
  if (!added) return;
  while (members_.count(next_member_)) ++next_member_;
  uint16_t member = next_member_++;
  it->second.member = member;
  members_[member] = mark;
  Entry entry;
  entry.setId(member);
  entry.setPriority(member);
  if (mark != kMainTable) entry.setAction(ActionL3NextHop(in_addr{htonl(mark)}));
  routes_->SetEntry(member, entry);
}

void ClassifierClient::Release(uint32_t mark, uint16_t id) {
  auto it = hops_.find(mark);
  if (it == hops_.end()) return;
  it->second.users.erase(id);
  if (!it->second.users.empty()) return;
  routes_->DeleteEntry(it->second.member);
  members_.erase(it->second.member);
  hops_.erase(it);
}

void ClassifierClient::StatusUpdateCb(const uint16_t& member, uint32_t status) {
  auto it = members_.find(member);
  if (it == members_.end() || status == 0) return;
  Hop& hop = hops_[it->second];
  hop.status = status;
  for (uint16_t id : hop.users) MarkDirty(id);
}

void ClassifierClient::MarkDirty(uint16_t id) {
  dirty_.insert(id);
  ScheduleApply();
}

void ClassifierClient::ScheduleApply() {
  if (apply_scheduled_) return;
  apply_scheduled_ = true;
  vqmw::Defer(mw_, [this, alive = std::weak_ptr<bool>(alive_)] {
    if (!alive.expired()) Apply();
  });
}

bool ClassifierClient::Pending(const Rule& r) const {
  if (!loaded_ || !r.want || !r.error.empty() || r.failed) return false;
  auto hop = hops_.find(r.want->mark);
  if (hop == hops_.end() || hop->second.status == 0) return true;
  return hop->second.status == 1 && r.installed != r.want;
}

void ClassifierClient::Apply() {
  apply_scheduled_ = false;
  std::vector<uint16_t> ids(dirty_.begin(), dirty_.end());
  dirty_.clear();

  // New entries first, published; then the entries they replace go (make-before-break).
  std::vector<std::pair<uint16_t, Placement>> removals;
  for (uint16_t id : ids) {
    Rule& r = rules_[id];
    std::optional<Placement> target = r.installed;
    if (!loaded_ || !r.want || !r.error.empty() || r.failed) {
      target.reset();
    } else if (uint32_t status = hops_[r.want->mark].status; status == 1) {
      target = r.want;
    } else if (status == 2) {
      target.reset();  // as a FIB rule with an empty table: the packet goes on to later rules
    }
    if (target == r.installed) continue;
    auto before = Marks(r);
    if (target && !Install(id, *target)) {
      CLOG(kWarn, "rule %u: the classifier has no room for it", id);
      r.failed = true;
      target.reset();
    }
    if (r.installed) {
      removals.emplace_back(id, *r.installed);
      before.erase(r.installed->mark);  // the old next hop stays until its entries are gone
    }
    r.installed = std::move(target);
    Reindex(id, before);
  }
  if (shapes_dirty_) Publish();
  for (const auto& [id, p] : removals) {
    Uninstall(id, p);
    Rule& r = rules_[id];
    auto before = Marks(r);
    before.insert(p.mark);
    Reindex(id, before);
  }
  if (shapes_dirty_) Publish();

  for (uint16_t id : ids) Evaluate(id);
  if (!attached_ && configured_ && links_known_ && loaded_ &&
      std::none_of(rules_.begin(), rules_.end(),
                   [this](const auto& entry) { return Pending(entry.second); }))
    AttachAll();
}

void ClassifierClient::Evaluate(uint16_t id) {
  auto it = rules_.find(id);
  if (it == rules_.end()) return;
  Rule& r = it->second;
  if (!r.want) {
    if (r.installed) return;
    bool reported = r.reported.has_value();
    rules_.erase(it);
    if (reported && listener_) listener_->StatusUpdateCb(id, 0);
    return;
  }
  uint32_t code = 2;
  if (loaded_ && r.error.empty() && !r.failed) {
    uint32_t status = hops_[r.want->mark].status;
    if (status == 0 || (status == 1 && r.installed != r.want)) return;
    code = status;
  }
  if (r.reported == code || !listener_) return;
  r.reported = code;
  listener_->StatusUpdateCb(id, code);
}

void ClassifierClient::AttachAll() {
  size_t count = 0;
  for (const auto& [index, link] : links_) {
    if (link.flags & IFF_LOOPBACK) continue;
    if (int e = datapath_.Attach(index)) {
      CLOG(kWarn, "cannot attach the classifier to %s: %s", link.name.c_str(), std::strerror(-e));
      continue;
    }
    attached_links_.insert(index);
    ++count;
  }
  attached_ = true;
  grace_timer_.reset();
  CLOG(kInfo, "the classifier now serves %zu interfaces", count);
}

bool ClassifierClient::Install(uint16_t id, const Placement& p) {
  for (size_t i = 0; i < p.keys.size(); ++i) {
    const pbr_cls_key& key = p.keys[i];
    auto& split = candidates_[Bytes(key)];
    auto before = ValueOf(split);
    split.For(p.mark).insert({p.rank, id, p.mark});
    shape_ranks_[ShapeOf(key)].For(p.mark).insert(p.rank);
    shapes_dirty_ = true;
    if (Same(before, ValueOf(split))) continue;
    if (datapath_.SetKey(key, ValueOf(split)) != 0) {
      // Undo this placement's keys so far, this one included.
      Placement done{p.rank, p.mark, {p.keys.begin(), p.keys.begin() + static_cast<long>(i) + 1}};
      Uninstall(id, done);
      return false;
    }
  }
  return true;
}

void ClassifierClient::Uninstall(uint16_t id, const Placement& p) {
  for (const pbr_cls_key& key : p.keys) {
    auto it = candidates_.find(Bytes(key));
    if (it == candidates_.end()) continue;
    auto& split = it->second;
    auto before = ValueOf(split);
    if (!split.For(p.mark).erase({p.rank, id, p.mark})) continue;
    auto shape = shape_ranks_.find(ShapeOf(key));
    auto& ranks = shape->second.For(p.mark);
    ranks.erase(ranks.find(p.rank));
    if (shape->second.main.empty() && shape->second.hops.empty()) shape_ranks_.erase(shape);
    shapes_dirty_ = true;
    if (split.main.empty() && split.hops.empty()) {
      candidates_.erase(it);
      datapath_.DeleteKey(key);
    } else if (!Same(before, ValueOf(split))) {
      datapath_.SetKey(key, ValueOf(split));
    }
  }
}

void ClassifierClient::Publish() {
  shapes_dirty_ = false;
  std::vector<pbr_cls_shape> shapes;
  for (const auto& [code, ranks] : shape_ranks_) {
    pbr_cls_shape shape{};
    shape.min_hop_rank = ranks.hops.empty() ? kNoRank : *ranks.hops.begin();
    shape.min_rank =
        std::min<uint64_t>(ranks.main.empty() ? kNoRank : *ranks.main.begin(), shape.min_hop_rank);
    shape.has_iif = static_cast<uint8_t>(code >> 16);
    shape.src_len = static_cast<uint8_t>(code >> 8);
    shape.dst_len = static_cast<uint8_t>(code);
    shape.src_mask = MaskOf(shape.src_len);
    shape.dst_mask = MaskOf(shape.dst_len);
    shapes.push_back(shape);
  }
  std::sort(shapes.begin(), shapes.end(),
            [](const pbr_cls_shape& a, const pbr_cls_shape& b) { return a.min_rank < b.min_rank; });
  if (int e = datapath_.PublishShapes(shapes))
    CLOG(kError, "cannot publish the classifier's shapes: %s", std::strerror(-e));
}

}  // namespace pbr::element
