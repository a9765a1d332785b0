// Routing-netlink messages of the kernel backend: requests for its FIB rules and routes, and the
// parsing of the kernel's rule, route and link messages. Parsers return nullopt for objects that
// are not this backend's (another protocol, another shape), so callers never touch them.
#pragma once

#include <linux/netlink.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "element/kernel/rule_layout.h"

namespace pbr::element {

// Room for any single request built here.
inline constexpr size_t kMaxRequestSize = 256;

// Writes a request into `buf` (kMaxRequestSize bytes) and returns it; the caller sets the
// sequence number. Adds are plain creates (no NLM_F_EXCL: the kernel would scan every rule).
// Deletes carry every attribute the add carried, the protocol included, since the kernel treats
// omitted attributes as wildcards.
nlmsghdr* PutRuleAdd(char* buf, const FibRule& rule);
nlmsghdr* PutRuleDelete(char* buf, const FibRule& rule);
// Creates or atomically replaces the table's default route; the kernel echoes the result.
nlmsghdr* PutRouteReplace(char* buf, const DefaultRoute& route);
nlmsghdr* PutRouteDelete(char* buf, const DefaultRoute& route);
// A dump request for `type` (RTM_GETRULE, RTM_GETROUTE, RTM_GETLINK, RTM_GETADDR) of IPv4 objects.
nlmsghdr* PutDump(char* buf, uint16_t type);

std::optional<FibRule> ParseRule(const nlmsghdr* nlh);

struct RouteInfo {
  DefaultRoute route;
  int oif = 0;            // the link towards the gateway
  bool linkdown = false;  // that link had no carrier when the kernel reported the route
};
std::optional<RouteInfo> ParseRoute(const nlmsghdr* nlh);

struct LinkInfo {
  int index = 0;
  std::string name;
  unsigned flags = 0;
};
std::optional<LinkInfo> ParseLink(const nlmsghdr* nlh);

// An IPv4 address of an RTM_NEWADDR or RTM_DELADDR message.
struct AddressInfo {
  int index = 0;
  uint32_t addr = 0;  // network byte order
  uint8_t len = 0;
  bool operator==(const AddressInfo&) const = default;
};
std::optional<AddressInfo> ParseAddress(const nlmsghdr* nlh);

// A link can carry traffic: administratively up and with carrier.
bool LinkUsable(unsigned flags);

}  // namespace pbr::element
