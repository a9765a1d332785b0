#include "element/kernel/rtnl_codec.h"

#include <libmnl/libmnl.h>
#include <linux/fib_rules.h>
#include <linux/if.h>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cstring>

namespace pbr::element {
namespace {

nlmsghdr* PutRule(char* buf, uint16_t type, uint16_t flags, const FibRule& rule) {
  nlmsghdr* nlh = mnl_nlmsg_put_header(buf);
  nlh->nlmsg_type = type;
  nlh->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK | flags;
  auto* frh = static_cast<fib_rule_hdr*>(mnl_nlmsg_put_extra_header(nlh, sizeof(fib_rule_hdr)));
  frh->family = AF_INET;
  frh->src_len = rule.src.len;
  frh->dst_len = rule.dst.len;
  frh->table = rule.table < 256 ? static_cast<uint8_t>(rule.table) : uint8_t{RT_TABLE_UNSPEC};
  frh->action = FR_ACT_TO_TBL;
  mnl_attr_put_u32(nlh, FRA_PRIORITY, rule.priority);
  mnl_attr_put_u32(nlh, FRA_TABLE, rule.table);
  if (rule.src.len) mnl_attr_put_u32(nlh, FRA_SRC, rule.src.addr);
  if (rule.dst.len) mnl_attr_put_u32(nlh, FRA_DST, rule.dst.addr);
  if (!rule.iif.empty()) mnl_attr_put_strz(nlh, FRA_IIFNAME, rule.iif.c_str());
  if (rule.fwmask) {
    mnl_attr_put_u32(nlh, FRA_FWMARK, rule.fwmark);
    mnl_attr_put_u32(nlh, FRA_FWMASK, rule.fwmask);
  }
  mnl_attr_put_u8(nlh, FRA_PROTOCOL, kRouteProtocol);
  return nlh;
}

nlmsghdr* PutRoute(char* buf, uint16_t type, uint16_t flags, uint8_t scope,
                   const DefaultRoute& route) {
  nlmsghdr* nlh = mnl_nlmsg_put_header(buf);
  nlh->nlmsg_type = type;
  nlh->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK | flags;
  auto* rtm = static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(rtmsg)));
  rtm->rtm_family = AF_INET;
  rtm->rtm_table = route.table < 256 ? static_cast<uint8_t>(route.table) : uint8_t{RT_TABLE_UNSPEC};
  rtm->rtm_protocol = kRouteProtocol;
  rtm->rtm_scope = scope;
  rtm->rtm_type = RTN_UNICAST;
  mnl_attr_put_u32(nlh, RTA_TABLE, route.table);
  mnl_attr_put_u32(nlh, RTA_GATEWAY, route.gateway);
  mnl_attr_put_u32(nlh, RTA_PRIORITY, route.metric);
  return nlh;
}

// Collects the attributes of a message after its family header, indexed by type.
template <size_t N>
bool Attributes(const nlmsghdr* nlh, size_t header, const nlattr* (&tb)[N]) {
  if (nlh->nlmsg_len < mnl_nlmsg_size(header)) return false;
  auto cb = [](const nlattr* attr, void* data) {
    auto* table = static_cast<const nlattr**>(data);
    uint16_t type = mnl_attr_get_type(attr);
    if (type < N) table[type] = attr;
    return MNL_CB_OK;
  };
  return mnl_attr_parse(nlh, header, cb, tb) >= 0;
}

bool ReadU32(const nlattr* attr, uint32_t& out) {
  if (!attr || mnl_attr_get_payload_len(attr) < sizeof(uint32_t)) return false;
  std::memcpy(&out, mnl_attr_get_payload(attr), sizeof out);
  return true;
}

}  // namespace

nlmsghdr* PutRuleAdd(char* buf, const FibRule& rule) {
  return PutRule(buf, RTM_NEWRULE, NLM_F_CREATE, rule);
}

nlmsghdr* PutRuleDelete(char* buf, const FibRule& rule) {
  return PutRule(buf, RTM_DELRULE, 0, rule);
}

nlmsghdr* PutRouteReplace(char* buf, const DefaultRoute& route) {
  return PutRoute(buf, RTM_NEWROUTE, NLM_F_CREATE | NLM_F_REPLACE | NLM_F_ECHO, RT_SCOPE_UNIVERSE,
                  route);
}

nlmsghdr* PutRouteDelete(char* buf, const DefaultRoute& route) {
  return PutRoute(buf, RTM_DELROUTE, 0, RT_SCOPE_NOWHERE, route);
}

nlmsghdr* PutDump(char* buf, uint16_t type) {
  nlmsghdr* nlh = mnl_nlmsg_put_header(buf);
  nlh->nlmsg_type = type;
  nlh->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  if (type == RTM_GETLINK) {
    auto* ifm = static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifinfomsg)));
    ifm->ifi_family = AF_UNSPEC;
  } else if (type == RTM_GETADDR) {
    auto* ifa = static_cast<ifaddrmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifaddrmsg)));
    ifa->ifa_family = AF_INET;
  } else {
    // fib_rule_hdr and rtmsg both begin with the family byte.
    auto* rtm = static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(rtmsg)));
    rtm->rtm_family = AF_INET;
  }
  return nlh;
}

std::optional<FibRule> ParseRule(const nlmsghdr* nlh) {
  if (nlh->nlmsg_type != RTM_NEWRULE && nlh->nlmsg_type != RTM_DELRULE) return std::nullopt;
  const nlattr* tb[FRA_MAX + 1] = {};
  if (!Attributes(nlh, sizeof(fib_rule_hdr), tb)) return std::nullopt;
  const auto* frh = static_cast<const fib_rule_hdr*>(mnl_nlmsg_get_payload(nlh));
  // The kernel marks a rule whose ingress interface does not exist (yet) as detached; it is still
  // ours to adopt or delete.
  if (frh->family != AF_INET || frh->action != FR_ACT_TO_TBL || frh->tos ||
      (frh->flags & ~uint32_t{FIB_RULE_IIF_DETACHED}))
    return std::nullopt;
  if (!tb[FRA_PROTOCOL] || mnl_attr_get_u8(tb[FRA_PROTOCOL]) != kRouteProtocol) return std::nullopt;
  // A selector this backend never sets means the rule is not one of its own.
  for (int type : {FRA_GOTO, FRA_FLOW, FRA_TUN_ID, FRA_OIFNAME, FRA_L3MDEV, FRA_UID_RANGE,
                   FRA_IP_PROTO, FRA_SPORT_RANGE, FRA_DPORT_RANGE})
    if (tb[type]) return std::nullopt;
  // The kernel reports these with their "unset" value (-1) on every rule.
  for (int type : {FRA_SUPPRESS_PREFIXLEN, FRA_SUPPRESS_IFGROUP}) {
    uint32_t value = UINT32_MAX;
    ReadU32(tb[type], value);
    if (value != UINT32_MAX) return std::nullopt;
  }

  FibRule rule;
  rule.table = frh->table;
  ReadU32(tb[FRA_TABLE], rule.table);
  ReadU32(tb[FRA_PRIORITY], rule.priority);
  rule.src.len = frh->src_len;
  rule.dst.len = frh->dst_len;
  if (rule.src.len && !ReadU32(tb[FRA_SRC], rule.src.addr)) return std::nullopt;
  if (rule.dst.len && !ReadU32(tb[FRA_DST], rule.dst.addr)) return std::nullopt;
  if (tb[FRA_IIFNAME]) rule.iif = mnl_attr_get_str(tb[FRA_IIFNAME]);
  ReadU32(tb[FRA_FWMARK], rule.fwmark);
  ReadU32(tb[FRA_FWMASK], rule.fwmask);
  // Only marked rules carry a mask, and only with their mark; anything else is not ours.
  if ((rule.fwmark != 0) != (rule.fwmask != 0)) return std::nullopt;
  return rule;
}

std::optional<RouteInfo> ParseRoute(const nlmsghdr* nlh) {
  if (nlh->nlmsg_type != RTM_NEWROUTE && nlh->nlmsg_type != RTM_DELROUTE) return std::nullopt;
  const nlattr* tb[RTA_MAX + 1] = {};
  if (!Attributes(nlh, sizeof(rtmsg), tb)) return std::nullopt;
  const auto* rtm = static_cast<const rtmsg*>(mnl_nlmsg_get_payload(nlh));
  if (rtm->rtm_family != AF_INET || rtm->rtm_protocol != kRouteProtocol ||
      rtm->rtm_type != RTN_UNICAST || rtm->rtm_dst_len != 0)
    return std::nullopt;
  RouteInfo info;
  info.route.table = rtm->rtm_table;
  ReadU32(tb[RTA_TABLE], info.route.table);
  if (!ReadU32(tb[RTA_GATEWAY], info.route.gateway)) return std::nullopt;
  ReadU32(tb[RTA_PRIORITY], info.route.metric);
  // Any default route of ours outside the reserved tables, whatever layout installed it: an
  // earlier one used a table per rule, and its routes are swept like any other leftover.
  if (info.route.table == RT_TABLE_UNSPEC ||
      (info.route.table >= RT_TABLE_COMPAT && info.route.table <= RT_TABLE_LOCAL))
    return std::nullopt;
  uint32_t oif = 0;
  ReadU32(tb[RTA_OIF], oif);
  info.oif = static_cast<int>(oif);
  info.linkdown = rtm->rtm_flags & RTNH_F_LINKDOWN;
  return info;
}

std::optional<LinkInfo> ParseLink(const nlmsghdr* nlh) {
  if (nlh->nlmsg_type != RTM_NEWLINK && nlh->nlmsg_type != RTM_DELLINK) return std::nullopt;
  const nlattr* tb[IFLA_MAX + 1] = {};
  if (!Attributes(nlh, sizeof(ifinfomsg), tb)) return std::nullopt;
  const auto* ifm = static_cast<const ifinfomsg*>(mnl_nlmsg_get_payload(nlh));
  LinkInfo link;
  link.index = ifm->ifi_index;
  link.flags = ifm->ifi_flags;
  if (tb[IFLA_IFNAME]) link.name = mnl_attr_get_str(tb[IFLA_IFNAME]);
  return link;
}

std::optional<AddressInfo> ParseAddress(const nlmsghdr* nlh) {
  if (nlh->nlmsg_type != RTM_NEWADDR && nlh->nlmsg_type != RTM_DELADDR) return std::nullopt;
  const nlattr* tb[IFA_MAX + 1] = {};
  if (!Attributes(nlh, sizeof(ifaddrmsg), tb)) return std::nullopt;
  const auto* ifa = static_cast<const ifaddrmsg*>(mnl_nlmsg_get_payload(nlh));
  if (ifa->ifa_family != AF_INET) return std::nullopt;
  AddressInfo info;
  info.index = static_cast<int>(ifa->ifa_index);
  info.len = ifa->ifa_prefixlen;
  if (!ReadU32(tb[IFA_LOCAL], info.addr) && !ReadU32(tb[IFA_ADDRESS], info.addr))
    return std::nullopt;
  return info;
}

bool LinkUsable(unsigned flags) {
  return (flags & IFF_UP) && (flags & IFF_LOWER_UP);
}

}  // namespace pbr::element
