// The PBR manager backend that programs rules into Linux policy routing (BACKEND=kernel).
//
// Each rule becomes the FIB rules of its RuleLayout; each distinct next hop the default route of
// its own table, shared by the rules that use it. The client keeps what it wants (the configured
// rules) beside what it believes the kernel holds, and a reconcile pass on the loop turns the
// difference into netlink requests, in the order the kernel handles cheaply: next-hop routes
// first, rule adds by descending kernel priority (the kernel inserts at the head of its list
// then), rule deletes from the head, then routes no longer wanted.
// - Make-before-break: a changed rule (a new next hop points it at another table) is added
//   before the old one is deleted, after the new table's route. Rules that share a kernel
//   priority are kept in ascending (priority, id) order by re-adding those that would otherwise
//   sit before a newcomer.
// - Restart: objects of our protocol found at start are adopted when the configuration wants them
//   unchanged; the rest are deleted once the first configuration has been applied (or, without
//   any configuration, after Options::leftover_grace).
// - Status per rule: 1 installed with its next hop's link up, 2 refused by the kernel or next hop
//   unusable (the next hop's route is then withdrawn so that its rules' traffic falls back to the
//   main table, and reinstalled when links or addresses change), 0 once a deleted rule is gone.
//   The reason behind each status goes to pbr::RuleReasons, which serves and logs it.
// - The router's own traffic: while any rule is installed, LocalTrafficGuard keeps locally
//   generated packets on the main table.
// - Deletes are exact: a delete whose unset selectors would match another installed rule first
//   is preceded by a make-before-break re-add of that rule, which puts it after the one to go.
//
// Threading: everything runs on the middleware loop's thread. SetEntry and DeleteEntry only
// record the change; requests and status reports happen in later loop callbacks. The client owns
// its sockets; it leaves kernel state in place when destroyed (a restarted client adopts it).
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "element/kernel/netlink_channel.h"
#include "element/kernel/netlink_monitor.h"
#include "element/kernel/rtnl_codec.h"
#include "element/kernel/rule_layout.h"
#include "element/middleware/loop.h"
#include "platform/pbr_client.h"
#include "platform/zlog.h"

namespace pbr::element {

class KernelClient final : public PbrClient {
 public:
  struct Options {
    InterfaceNames interface_names;
    // How long objects left by a previous run wait for a configuration that wants them.
    std::chrono::milliseconds leftover_grace{std::chrono::seconds(60)};
  };
  // Lays out a rule in place of LayOut, for owners that program other selectors (marks).
  using LayOutFn = std::function<RuleLayout(uint16_t id, const Entry& entry)>;

  // `log` may be null (no logging); it is not owned.
  KernelClient(vqmw_t* mw, zlog_category_t* log, Options options, LayOutFn lay_out = {});
  ~KernelClient() override;

  Error SetEntry(const uint16_t& id, const Entry& entry) override;
  Error DeleteEntry(const uint16_t& id) override;
  Error RegisterStatusListener(PbrStatusItf* listener) override;

  // Every change has been sent and answered, and no resynchronisation is under way.
  bool Settled() const;

 private:
  enum class Phase { kSyncing, kReady, kBroken };

  // One configured (or being deleted) rule: what is wanted, which FIB rules the kernel holds.
  struct Member {
    std::optional<RuleLayout> want;  // nullopt once deleted
    std::vector<FibRule> rules;      // installed, sorted
    uint64_t serial = 0;             // order of `rules` among equal kernel priorities
    bool rules_failed = false;
    bool replace = false;  // re-add even if installed as wanted (a delete would hit it)
    int in_flight = 0;
    std::string refusal;  // the kernel's reason when rules_failed
    std::optional<uint32_t> reported;
    std::string reported_reason;
  };

  struct Link {
    unsigned flags = 0;
    std::string name;
  };

  // One next hop's table, shared by the members that forward to it: the default route via the
  // next hop, installed while any member wants it and the next hop is usable.
  struct NextHop {
    DefaultRoute want;
    std::set<uint16_t> users;           // members whose wanted layout routes through it
    std::optional<DefaultRoute> route;  // installed
    int oif = 0;                        // the link of `route`
    bool blocked = false;               // next hop unusable now: keep the table empty
    bool verify = false;                // re-send the route to learn whether it still stands
    bool echo_linkdown = false;         // the kernel's answer to our last route request
    int in_flight = 0;
    std::string reason;  // why it is blocked
  };

  void Start();
  void StartSync();
  void FinishSync(int error);
  void OnNotification(const nlmsghdr* nlh);
  void OnLink(const nlmsghdr* nlh);
  void Resync();

  void MarkDirty(uint16_t id);
  void MarkHopDirty(uint32_t table);
  void ScheduleReconcile();
  void Reconcile();
  void ClaimLeftovers(uint16_t id, Member& m);
  void ClaimLeftoverRoute(NextHop& hop);
  void RequestSweep();
  void SweepLeftovers();

  std::vector<FibRule> Wanted(const Member& m) const;
  // The table of the next hop that member `m` routes through, if it has a valid one.
  static std::optional<uint32_t> HopOf(const Member& m);
  void AddRule(uint16_t id, const FibRule& rule);
  void DeleteRule(std::optional<uint16_t> id, const FibRule& rule);
  void ReplaceRoute(uint32_t table);
  void DeleteRoute(std::optional<uint32_t> table, const DefaultRoute& route);
  void Finished(uint16_t id);
  void HopFinished(uint32_t table);
  void Evaluate(uint16_t id);
  void EvaluateAll();
  void Report(uint16_t id, Member& m, uint32_t code, std::string reason);
  bool LinkUsableNow(int index) const;
  bool LinkExists(const std::string& name) const;
  bool IsLocalAddress(uint32_t addr) const;
  bool OnConnectedSubnet(uint32_t addr) const;
  void OnAddress(const nlmsghdr* nlh);
  // Marks members whose installed rules a delete of `rule` would hit first; true if any.
  bool MarkVictims(const FibRule& rule, const std::set<uint16_t>& leaving);
  void SendGuard(bool add);

  void IndexClass(uint16_t id, const Member& m, bool add);
  // Moves member `id` between the user sets of next hops (before and after `want` changes).
  void IndexHop(uint16_t id, const Member& m, bool add);

  vqmw_t* mw_;
  zlog_category_t* log_;
  Options options_;
  LayOutFn lay_out_;
  PbrStatusItf* listener_ = nullptr;

  std::unique_ptr<NetlinkChannel> channel_;
  std::unique_ptr<NetlinkMonitor> monitor_;
  std::unique_ptr<vqmw::Source> grace_timer_;
  std::unique_ptr<vqmw::Source> retry_timer_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);

  Phase phase_ = Phase::kSyncing;
  bool resync_again_ = false;
  bool sweep_requested_ = false;
  bool swept_ = false;
  bool reconcile_scheduled_ = false;
  int sync_error_ = 0;
  std::string broken_reason_;
  bool guard_ = false;        // LocalTrafficGuard is installed
  bool guard_dirty_ = false;  // whether it should be is to be checked

  std::map<uint16_t, Member> members_;
  std::set<uint16_t> dirty_;
  std::map<uint32_t, NextHop> hops_;  // by table
  std::set<uint32_t> dirty_hops_;
  // Members by kernel priority, in the order the kernel must hold them: (PBR priority, id).
  std::map<uint32_t, std::set<std::pair<uint32_t, uint16_t>>> classes_;
  std::unordered_map<int, Link> links_;  // by ifindex
  std::vector<AddressInfo> addresses_;   // IPv4 addresses of every link
  uint64_t next_serial_ = 1;

  // Objects of our protocol found by a dump and not (yet) claimed by a member.
  std::multimap<FibRule, uint64_t> leftover_rules_;
  std::multimap<uint32_t, RouteInfo> leftover_routes_;  // by table
  // Dump results being collected.
  std::unordered_map<int, Link> dumped_links_;
  std::vector<AddressInfo> dumped_addresses_;
  std::multimap<FibRule, uint64_t> dumped_rules_;
  std::multimap<uint32_t, RouteInfo> dumped_routes_;
};

}  // namespace pbr::element
