// The PBR manager backend that classifies packets in a tc eBPF program (BACKEND=classifier).
//
// Rules live in the datapath's hash maps, grouped by shape (classifier_maps.h), so a packet
// costs one lookup per shape, whatever the number of rules. The program marks a matching
// packet with its rule's mark; one FIB rule per next hop ("fwmark <table> lookup <table>") and
// one for rules without next hop ("fwmark 254 lookup main") turn the mark into the table
// lookup. Those FIB rules and the next hops' tables are kept by an inner KernelClient, one
// member per next hop, so routes, link watching, adoption after a restart and next-hop status
// work exactly as in the kernel backend.
// - A rule enters the classifier once its next hop's route and FIB rule are installed (the
//   inner member reports 1); a changed rule keeps its old entry until then (make-before-break).
// - A rule whose next hop is unusable leaves the classifier, so its packets fall through to the
//   later rules, as a FIB rule looking up an emptied table lets them.
// - Restart: a fresh program and maps are filled with the configuration; once it has been
//   applied (or after Options::leftover_grace without any), the program replaces the previous
//   run's on every interface in one step each. The kernel frees the old program and maps; the
//   inner client removes FIB rules and routes no rule wants.
// - Interfaces are matched by name: names get ids, and the interfaces map follows the links
//   that carry those names as they appear, change name or go.
//
// Threading: everything runs on the middleware loop's thread; SetEntry and DeleteEntry only
// record the change. The datapath is left in place when the client is destroyed.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <unordered_map>
#include <vector>

#include "element/classifier/classifier_maps.h"
#include "element/classifier/datapath.h"
#include "element/kernel/kernel_client.h"
#include "element/kernel/netlink_channel.h"
#include "element/kernel/netlink_monitor.h"
#include "element/kernel/rule_layout.h"
#include "element/middleware/loop.h"
#include "platform/pbr_client.h"
#include "platform/zlog.h"

namespace pbr::element {

// The kernel priority of the mark rules: before every rule the kernel backend would install.
inline constexpr uint32_t kMarkRulePriority = 1;

class ClassifierClient final : public PbrClient, private PbrStatusItf {
 public:
  struct Options {
    InterfaceNames interface_names;
    std::chrono::milliseconds leftover_grace{std::chrono::seconds(60)};
  };

  // `log` may be null (no logging); it is not owned.
  ClassifierClient(vqmw_t* mw, zlog_category_t* log, Options options);
  ~ClassifierClient() override;

  Error SetEntry(const uint16_t& id, const Entry& entry) override;
  Error DeleteEntry(const uint16_t& id) override;
  Error RegisterStatusListener(PbrStatusItf* listener) override;

  // Every change is in the datapath, the program is attached, and the inner client is settled.
  bool Settled() const;

 private:
  struct Placement {
    uint64_t rank = 0;
    uint32_t mark = 0;
    std::vector<pbr_cls_key> keys;
    bool operator==(const Placement&) const;
  };
  struct Rule {
    std::optional<Placement> want;  // nullopt once deleted
    std::string error;              // why `want` cannot be programmed
    bool failed = false;            // the datapath refused it
    std::optional<Placement> installed;
    std::optional<uint32_t> reported;
  };
  // A next hop (or the main table) as the inner client's member `member`.
  struct Hop {
    uint16_t member = 0;
    uint32_t status = 0;  // the member's last report; 0 none yet
    std::set<uint16_t> users;
  };

  void StatusUpdateCb(const uint16_t& member, uint32_t status) override;
  void OnNotification(const nlmsghdr* nlh);
  void OnLink(int index, const std::string& name, unsigned flags, bool gone);
  void DumpLinks();

  std::set<uint32_t> Marks(const Rule& r) const;
  void Reindex(uint16_t id, const std::set<uint32_t>& before);
  void Evaluate(uint16_t id);
  void MarkDirty(uint16_t id);
  void ScheduleApply();
  void Apply();
  void Use(uint32_t mark, uint16_t id);
  void Release(uint32_t mark, uint16_t id);
  uint32_t NameId(const std::string& name);
  bool Pending(const Rule& r) const;
  void AttachAll();

  // The classifier's candidate sets: every installed rule in every key it has.
  bool Install(uint16_t id, const Placement& p);
  void Uninstall(uint16_t id, const Placement& p);
  void Publish();

  vqmw_t* mw_;
  zlog_category_t* log_;
  Options options_;
  PbrStatusItf* listener_ = nullptr;
  std::unique_ptr<KernelClient> routes_;
  std::unique_ptr<NetlinkChannel> channel_;
  std::unique_ptr<NetlinkMonitor> monitor_;
  std::unique_ptr<vqmw::Source> grace_timer_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
  Datapath datapath_;
  bool loaded_ = false;
  bool links_known_ = false;
  bool configured_ = false;  // a configuration has arrived
  bool attached_ = false;    // the program is on every interface
  bool apply_scheduled_ = false;
  bool shapes_dirty_ = false;

  std::map<uint16_t, Rule> rules_;
  std::set<uint16_t> dirty_;
  std::map<uint32_t, Hop> hops_;          // by mark
  std::map<uint16_t, uint32_t> members_;  // inner member -> mark
  uint16_t next_member_ = 0;
  std::map<std::string, uint32_t> name_ids_;  // interface name -> id in the datapath
  struct Link {
    std::string name;
    unsigned flags = 0;
  };
  std::unordered_map<int, Link> links_;  // by ifindex
  std::set<int> attached_links_;

  using KeyBytes = std::string;  // a pbr_cls_key's bytes, for ordered containers
  using Candidate = std::tuple<uint64_t, uint16_t, uint32_t>;  // rank, rule id, mark
  // Rules that look up main and rules with a next hop, apart: the datapath needs the best of
  // each (classifier_maps.h).
  template <typename Set>
  struct Split {
    Set main;
    Set hops;
    Set& For(uint32_t mark) { return mark == kMainTable ? main : hops; }
  };
  std::map<KeyBytes, Split<std::set<Candidate>>> candidates_;
  std::map<uint32_t, Split<std::multiset<uint64_t>>> shape_ranks_;  // by shape (has_iif, lengths)
};

}  // namespace pbr::element
