#include "element/kernel/rule_layout.h"

#include <arpa/inet.h>
#include <net/if.h>

#include <algorithm>
#include <bit>

namespace pbr::element {
namespace {

// Prefix length of a contiguous mask, nullopt for a mask such as 255.0.255.0.
std::optional<uint8_t> PrefixLength(in_addr mask) {
  uint32_t host = ntohl(mask.s_addr);
  int ones = std::countl_one(host);
  if (ones < 32 && (host << ones) != 0) return std::nullopt;
  return static_cast<uint8_t>(ones);
}

template <typename M>
std::optional<Prefix> MatchPrefix(const Entry& entry, const char* what, std::string& error) {
  M match({}, {});
  if (entry.getMatch(match) != PBR_OK) return Prefix{};
  auto len = PrefixLength(match.getIPv4Mask());
  if (!len) {
    error = std::string(what) + " mask " + AddressText(match.getIPv4Mask().s_addr) +
            " is not a prefix mask";
    return std::nullopt;
  }
  uint32_t mask = *len == 0 ? 0 : htonl(~uint32_t{0} << (32 - *len));
  return Prefix{match.getIPv4().s_addr & mask, *len};
}

}  // namespace

uint32_t KernelPriority(uint32_t pbr_priority) {
  return kFirstKernelPriority + std::min(pbr_priority, kLastKernelPriority - kFirstKernelPriority);
}

uint32_t TableOf(uint32_t gateway) {
  return ntohl(gateway);
}
uint32_t MetricOf(uint32_t gateway) {
  return ntohl(gateway);
}
DefaultRoute NextHopRoute(uint32_t gateway) {
  return DefaultRoute{TableOf(gateway), gateway, MetricOf(gateway)};
}
bool IsNextHopRoute(const DefaultRoute& route) {
  return (ntohl(route.gateway) >> 24) != 0 && route == NextHopRoute(route.gateway);
}

RuleLayout LayOut(uint16_t id, const Entry& entry, const InterfaceNames& names) {
  RuleLayout layout;
  layout.id = id;
  layout.priority = entry.getPriority();

  auto src = MatchPrefix<MatchSrcIPv4>(entry, "source", layout.error);
  auto dst = src ? MatchPrefix<MatchDstIPv4>(entry, "destination", layout.error) : std::nullopt;
  if (!src || !dst) return layout;

  std::vector<std::string> iifs;
  MatchIngressPorts ports({});
  if (entry.getMatch(ports) == PBR_OK) {
    for (const limid_t& port : ports.getPorts()) {
      auto name = names ? names(port) : std::nullopt;
      if (!name) {
        layout.error = "unknown ingress interface id " + std::to_string(port.value);
        return layout;
      }
      if (name->empty() || name->size() >= IFNAMSIZ) {
        layout.error = "invalid ingress interface name '" + *name + "'";
        return layout;
      }
      iifs.push_back(*name);
    }
  }
  // An empty interface list selects every ingress interface, like an absent one.
  if (iifs.empty()) iifs.emplace_back();

  ActionL3NextHop next_hop({});
  uint32_t table = kMainTable;
  if (entry.getAction(next_hop) == PBR_OK) {
    uint32_t gateway = next_hop.getL3NextHop().s_addr;
    if ((ntohl(gateway) >> 24) == 0) {
      layout.error = "next hop " + AddressText(gateway) + " is not a gateway";
      return layout;
    }
    layout.route = NextHopRoute(gateway);
    table = layout.route->table;
  }

  for (auto& iif : iifs)
    layout.rules.push_back(FibRule{KernelPriority(layout.priority), table, *src, *dst, iif});
  std::sort(layout.rules.begin(), layout.rules.end());
  layout.rules.erase(std::unique(layout.rules.begin(), layout.rules.end()), layout.rules.end());
  return layout;
}

FibRule LocalTrafficGuard() {
  return FibRule{0, kMainTable, {}, {}, "lo"};
}

bool DeleteMatches(const FibRule& x, const FibRule& other) {
  return x.priority == other.priority && x.table == other.table &&
         (x.iif.empty() || x.iif == other.iif) && (x.src.len == 0 || x.src == other.src) &&
         (x.dst.len == 0 || x.dst == other.dst);
}

int Specificity(const FibRule& rule) {
  return (rule.iif.empty() ? 0 : 1) + (rule.src.len ? 1 : 0) + (rule.dst.len ? 1 : 0);
}

std::string AddressText(uint32_t addr) {
  char text[INET_ADDRSTRLEN] = {};
  in_addr a{addr};
  inet_ntop(AF_INET, &a, text, sizeof text);
  return text;
}

std::string Describe(const FibRule& rule) {
  std::string out = "pref " + std::to_string(rule.priority);
  if (rule.src.len)
    out += " from " + AddressText(rule.src.addr) + "/" + std::to_string(rule.src.len);
  if (rule.dst.len) out += " to " + AddressText(rule.dst.addr) + "/" + std::to_string(rule.dst.len);
  if (!rule.iif.empty()) out += " iif " + rule.iif;
  if (rule.fwmask) out += " fwmark " + std::to_string(rule.fwmark);
  return out + " lookup " + std::to_string(rule.table);
}

std::string Describe(const DefaultRoute& route) {
  return "default via " + AddressText(route.gateway) + " table " + std::to_string(route.table) +
         " metric " + std::to_string(route.metric);
}

}  // namespace pbr::element
