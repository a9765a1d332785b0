#include "config/cache.h"

#include <arpa/inet.h>

#include <list>

#include "common/fault.h"
#include "common/log.h"
#include "common/netmask.h"
#include "common/pbr_schema.h"
#include "platform/limid.h"
#include "platform/vqmw.h"

namespace pbr {
namespace {

// Fault site of an ip leaf whose keypath is neither under source nor under destination.
constexpr int kInvalidMatchTagLine = 215;

bool IsSet(confd_iter_op op) {
  return op == MOP_CREATED || op == MOP_MODIFIED || op == MOP_VALUE_SET;
}

}  // namespace

ConfigCache::ConfigCache() : category(vqmw_trace_register_category("pbr-app_cache")) {}

PbrConfig& ConfigCache::FindOrCreate(uint32_t id) {
  auto it = configs.lower_bound(id);
  if (it == configs.end() || it->first != id) it = configs.emplace_hint(it, id, PbrConfig{});
  return it->second;
}

PbrConfig& ConfigCache::GetConfig(uint32_t id) {
  PBR_LOG(category, "Config size = %zd, id = %d", configs.size(), static_cast<int>(id));
  return FindOrCreate(id);
}

confd_iter_ret ConfigCache::HandlePbrEntry(uint32_t& id, confd_iter_op op) {
  switch (op) {
    case MOP_DELETED:
      PBR_LOG(category, "Deleting 'pbr'");
      configs.erase(id);
      deletedIds.insert(id);
      return ITER_CONTINUE;
    case MOP_CREATED:
    case MOP_MODIFIED:
    case MOP_VALUE_SET:
      changedIds.insert(id);
      return ITER_RECURSE;
    default:
      return ITER_RECURSE;
  }
}

confd_iter_ret ConfigCache::SetPbrId(uint32_t& id) {
  PbrConfig& config = FindOrCreate(id);
  config.id = id;
  config.entry.setId(static_cast<uint16_t>(id));
  PBR_LOG(category, "Id = '%d'", static_cast<int>(config.id));
  return ITER_RECURSE;
}

confd_iter_ret ConfigCache::SetPbrPrio(uint32_t& id, const confd_value_t& value) {
  PbrConfig& config = FindOrCreate(id);
  PBR_ASSERT_TYPE(&value, C_UINT32);
  uint32_t priority = CONFD_GET_UINT32(&value);
  config.entry.setPriority(priority);
  PBR_LOG(category, "Prio = '%d'", static_cast<int>(priority));
  return ITER_RECURSE;
}

confd_iter_ret ConfigCache::HandlePbrDescription(uint32_t& id, confd_iter_op op,
                                                 const confd_value_t& value) {
  PbrConfig& config = FindOrCreate(id);
  if (op == MOP_DELETED) {
    PBR_LOG(category, "Deleting.");
    config.description.clear();
  } else if (IsSet(op)) {
    PBR_ASSERT_TYPE(&value, C_BUF);
    config.description = reinterpret_cast<const char*>(CONFD_GET_BUFPTR(&value));
    PBR_LOG(category, "Set Description = '%s'", config.description.c_str());
  }
  return ITER_RECURSE;
}

confd_iter_ret ConfigCache::HandlePbrActionNextHop(uint32_t& id, confd_iter_op op,
                                                   confd_value_t& value) {
  PbrConfig& config = FindOrCreate(id);
  in_addr nextHop{};
  changedIds.insert(id);
  if (op == MOP_DELETED) {
    config.entry.deleteAction(ACTION_L3_NEXT_HOP);
    PBR_LOG(category, "Deleting l3 next-hop.");
  } else if (IsSet(op)) {
    PBR_ASSERT_TYPE(&value, C_IPV4);
    nextHop = CONFD_GET_IPV4(&value);
    config.entry.setAction<ActionL3NextHop>(ActionL3NextHop(nextHop));
  }
  if (PBR_LOG_ENABLED(category)) {
    char text[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &nextHop, text, sizeof(text));
    PBR_LOG(category, "Next-hop = '%s'", text);
  }
  return ITER_RECURSE;
}

confd_iter_ret ConfigCache::HandlePbrMatchIp(confd_hkeypath_t* kp, confd_iter_op op,
                                             const confd_value_t& value) {
  PBR_ASSERT_TYPE(&kp->v[6][0], C_UINT32);
  uint32_t id = CONFD_GET_UINT32(&kp->v[kKeyPosMatchIp][0]);
  changedIds.insert(id);
  in_addr address{};
  in_addr mask{};

  if (op == MOP_DELETED) {
    PbrConfig& config = FindOrCreate(id);
    PBR_ASSERT_TYPE(&kp->v[3][0], C_XMLTAG);
    uint32_t direction = CONFD_GET_XMLTAG(&kp->v[kPosMatchDirection][0]);
    if (direction == pbr_source) {
      config.entry.deleteMatch(MATCH_SRC_IPV4);
    } else if (direction == pbr_destination) {
      config.entry.deleteMatch(MATCH_DST_IPV4);
    } else {
      FatalFault("HandlePbrMatchIp", __FILE_NAME__, kInvalidMatchTagLine,
                 "Invalid ip match tag = '%d'", static_cast<int>(direction));
    }
    return ITER_CONTINUE;
  }

  if (IsSet(op)) {
    mask = MaskForPrefixLen(32);
    PBR_ASSERT_TYPE(&kp->v[1][0], C_XMLTAG);
    if (CONFD_GET_XMLTAG(&kp->v[kPosIpParent][0]) == pbr_no_mask) {
      PBR_ASSERT_TYPE(&value, C_IPV4);
      address = CONFD_GET_IPV4(&value);
    } else {
      PBR_ASSERT_TYPE(&value, C_IPV4_AND_PLEN);
      address = CONFD_GET_IPV4PREFIX(&value).ip;  // host bits are kept as given
      mask = MaskForPrefixLen(CONFD_GET_IPV4PREFIX(&value).len);
    }
  }
  // Any other operation stores the match with address and mask 0.0.0.0.
  PBR_ASSERT_TYPE(&kp->v[3][0], C_XMLTAG);
  uint32_t direction = CONFD_GET_XMLTAG(&kp->v[kPosMatchDirection][0]);
  if (direction == pbr_source) return SetPbrMatchSrcIp(id, address, mask);
  if (direction == pbr_destination) return SetPbrMatchDstIp(id, address, mask);
  FatalFault("HandlePbrMatchIp", __FILE_NAME__, kInvalidMatchTagLine, "Invalid ip match tag = '%d'",
             static_cast<int>(direction));
}

confd_iter_ret ConfigCache::SetPbrMatchSrcIp(uint32_t& id, in_addr& address, in_addr& mask) {
  PbrConfig& config = FindOrCreate(id);
  config.entry.setMatch<MatchSrcIPv4>(MatchSrcIPv4(address, mask));
  if (PBR_LOG_ENABLED(category)) {
    char addressText[INET_ADDRSTRLEN];
    char maskText[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &address, addressText, sizeof(addressText));
    inet_ntop(AF_INET, &mask, maskText, sizeof(maskText));
    PBR_LOG(category, "source ip = '%s - %s'", addressText, maskText);
  }
  return ITER_RECURSE;
}

confd_iter_ret ConfigCache::SetPbrMatchDstIp(uint32_t& id, in_addr& address, in_addr& mask) {
  PbrConfig& config = FindOrCreate(id);
  config.entry.setMatch<MatchDstIPv4>(MatchDstIPv4(address, mask));
  if (PBR_LOG_ENABLED(category)) {
    char addressText[INET_ADDRSTRLEN];
    char maskText[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &address, addressText, sizeof(addressText));
    inet_ntop(AF_INET, &mask, maskText, sizeof(maskText));
    PBR_LOG(category, "destination ip = '%s - %s'", addressText, maskText);
  }
  return ITER_RECURSE;
}

confd_iter_ret ConfigCache::HandlePbrMatchInterface(uint32_t& id, confd_iter_op op,
                                                    const confd_value_t& value) {
  PbrConfig& config = FindOrCreate(id);
  PBR_ASSERT_TYPE(&value, C_BUF);
  const char* name = reinterpret_cast<const char*>(CONFD_GET_BUFPTR(&value));
  limid_t port{};
  limid_from_intfname(&port, name);
  changedIds.insert(id);

  MatchIngressPorts match(std::list<limid_t>{});
  config.entry.getMatch<MatchIngressPorts>(match);
  std::list<limid_t> ports = match.getPorts();
  if (op == MOP_DELETED) {
    ports.remove(port);
    PBR_LOG(category, "Deleting Interface '%s'.", name);
  } else if (IsSet(op)) {
    ports.push_back(port);
    PBR_LOG(category, "Setting Interface name '%s', total %lu", name,
            static_cast<unsigned long>(ports.size()));
  }
  if (ports.empty()) {
    config.entry.deleteMatch(MATCH_INGRESS_PORTS);
  } else {
    match.setPorts(ports);
    config.entry.setMatch<MatchIngressPorts>(match);
  }
  return ITER_RECURSE;
}

}  // namespace pbr
