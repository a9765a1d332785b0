// How one PBR rule is laid out in Linux policy routing: the FIB rules that select its traffic
// and the default route of the routing table they look up. Pure functions, no kernel access.
//
// Layout decisions (README "Kernel backend" explains them to users):
// - Every object carries routing protocol kRouteProtocol; the backend touches no other.
// - Kernel rule priority = kFirstKernelPriority + PBR priority, capped at kLastKernelPriority, so
//   every PBR rule is consulted before the main table (32766). Rules sharing a kernel priority are
//   kept in ascending (PBR priority, rule id) order by the backend.
// - Every next hop has one table, shared by all rules that forward to it: TableOf(next hop), the
//   next hop's address read as a number, holding one default route via the next hop with metric
//   MetricOf(next hop) (distinct per next hop: the kernel hashes routes by device and metric).
//   The kernel finds a table by id in a hash of 256 chains, so a table per rule would make every
//   route and rule change walk chains of n/256 tables; a table per next hop keeps them short.
//   Next hops in 0.0.0.0/8 are refused: they are no gateways, and their tables would collide
//   with the kernel's reserved ones. A rule without next hop looks up the main table.
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/limid.h"
#include "platform/pbr_model.h"

namespace pbr::element {

inline constexpr uint8_t kRouteProtocol = 77;
inline constexpr uint32_t kFirstKernelPriority = 1;
inline constexpr uint32_t kLastKernelPriority = 32765;  // the main table's rule is at 32766
inline constexpr uint32_t kMainTable = 254;

// An IPv4 prefix; `addr` in network byte order with the host bits cleared.
struct Prefix {
  uint32_t addr = 0;
  uint8_t len = 0;
  auto operator<=>(const Prefix&) const = default;
};

// One kernel FIB rule as this backend installs it ("from src to dst iif X lookup table").
struct FibRule {
  uint32_t priority = 0;  // kernel priority
  uint32_t table = 0;
  Prefix src;
  Prefix dst;
  std::string iif;      // empty: any ingress interface
  uint32_t fwmark = 0;  // with fwmask: packets whose mark matches (0/0: any)
  uint32_t fwmask = 0;
  auto operator<=>(const FibRule&) const = default;
};

// The default route of a next hop's table.
struct DefaultRoute {
  uint32_t table = 0;
  uint32_t gateway = 0;  // network byte order
  uint32_t metric = 0;
  auto operator<=>(const DefaultRoute&) const = default;
};

// Everything the kernel should hold for one PBR rule.
struct RuleLayout {
  uint16_t id = 0;
  uint32_t priority = 0;              // the PBR priority, for ordering equal kernel priorities
  std::vector<FibRule> rules;         // sorted, no duplicates; empty when `error` is set
  std::optional<DefaultRoute> route;  // absent for a rule without next hop
  std::string error;                  // why the rule cannot be programmed, empty if it can
};

// Resolves an ingress interface identifier to its name; nullopt for an unknown identifier.
using InterfaceNames = std::function<std::optional<std::string>(limid_t)>;

uint32_t KernelPriority(uint32_t pbr_priority);
// The table and metric of next hop `gateway` (network byte order).
uint32_t TableOf(uint32_t gateway);
uint32_t MetricOf(uint32_t gateway);
// The route this backend installs for next hop `gateway`.
DefaultRoute NextHopRoute(uint32_t gateway);
// True for a route of the shape NextHopRoute gives (its own next hop's table and metric).
bool IsNextHopRoute(const DefaultRoute& route);

// Lays out rule `id`. Invalid input (a non-prefix mask, an unknown interface, a next hop in
// 0.0.0.0/8) gives a layout with `error` set and nothing to install.
RuleLayout LayOut(uint16_t id, const Entry& entry, const InterfaceNames& names);

// The rule that keeps the router's own traffic on the main table: PBR applies to traffic arriving
// on its ports, and locally generated packets are looked up with ingress interface lo. Priority 0
// puts it after the local table's rule and before every PBR rule.
FibRule LocalTrafficGuard();

// The kernel deletes the first rule that matches a delete request, and selectors the request
// leaves unset (no ingress interface, a /0 prefix) match anything. True when a delete of `x`
// would also match `other`.
bool DeleteMatches(const FibRule& x, const FibRule& other);
// How many selectors `rule` sets: deleting the more specific rules first keeps the deletes of
// less specific ones from hitting them.
int Specificity(const FibRule& rule);

// "pref 11 from 10.1.0.0/16 iif eth0 lookup 167772674", for logs.
std::string Describe(const FibRule& rule);
std::string Describe(const DefaultRoute& route);
std::string AddressText(uint32_t addr);

}  // namespace pbr::element
