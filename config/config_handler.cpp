#include "config/config_handler.h"

#include <cstdlib>
#include <cstring>
#include <list>

#include "common/fault.h"
#include "common/log.h"
#include "common/netmask.h"
#include "common/pbr_schema.h"
#include "platform/limid.h"

namespace pbr {
namespace {

// Fault sites, fixed for the element's fault management.
constexpr int kKeypathFaultLine = 191;
constexpr int kUnhandledTagLine = 328;
constexpr int kReadIdLine = 55;
constexpr int kReadPriorityLine = 70;
constexpr int kReadDescriptionLine = 81;
constexpr int kReadNextHopLine = 131;
constexpr int kReadNoMaskIpLine = 157;
constexpr int kReadMaskIpLine = 168;

constexpr int kKeypathTextSize = 8192;

[[noreturn]] void CdbReadFault(const char* func, int line, int position, const std::string& path) {
  FatalFault(func, __FILE_NAME__, line,
             "Could not read PBR config entry '%d' at '%s' from CDB (Error: %s).", position,
             path.c_str(), confd_lasterr());
}

}  // namespace

ConfigHandler::ConfigHandler(zlog_category_t* logCategory, PbrClient* pbrClient,
                             ConfigCache* ruleCache)
    : category(logCategory), client(pbrClient), cache(ruleCache) {
  points.push_back(vqconfd::SubscriptionPoint{
      0, pbr__ns, kPbrPath, 0,
      [this](confd_hkeypath* kp, confd_iter_op op, confd_value* oldValue, confd_value* newValue) {
        return PbrGlobalHandler(kp, op, oldValue, newValue);
      }});
}

const std::vector<vqconfd::SubscriptionPoint>& ConfigHandler::GetSubscriptionPoints() const {
  return points;
}

uint32_t ConfigHandler::GetXmlTagFromKeypath(confd_hkeypath_t* keypath) {
  if (keypath->len >= 1) {
    for (int i = 0; i < keypath->len; ++i) {
      if (keypath->v[i][0].type == C_XMLTAG) return CONFD_GET_XMLTAG(&keypath->v[i][0]);
    }
  }
  FatalFault("GetXmlTagFromKeypath", __FILE_NAME__, kKeypathFaultLine,
             "Error getting XML tag from keypath.");
}

confd_iter_ret ConfigHandler::PbrGlobalHandler(confd_hkeypath_t* kp, confd_iter_op op,
                                               confd_value_t* /*oldValue*/,
                                               confd_value_t* newValue) {
  char kpText[kKeypathTextSize];
  confd_pp_kpath(kpText, sizeof(kpText), kp);
  PBR_LOG(category, "Handling kp '%s'", kpText);

  uint32_t tag = GetXmlTagFromKeypath(kp);

  // ConfD passes no new value for a deletion.
  confd_value_t deleted;
  memset(&deleted, 0, sizeof(deleted));
  confd_value_t* value = op == MOP_DELETED ? &deleted : newValue;

  if (tag == pbr_pbr) {
    PBR_ASSERT_TYPE(&kp->v[0][0], C_UINT32);
    uint32_t id = CONFD_GET_UINT32(&kp->v[kKeyPosEntry][0]);
    return cache->HandlePbrEntry(id, op);
  }
  if (tag == pbr_id) {
    PBR_ASSERT_TYPE(value, C_UINT32);
    uint32_t id = CONFD_GET_UINT32(value);
    return cache->SetPbrId(id);
  }
  if (tag == pbr_priority) {
    PBR_ASSERT_TYPE(&kp->v[2][0], C_UINT32);
    uint32_t id = CONFD_GET_UINT32(&kp->v[kKeyPosRuleLeaf][0]);
    return cache->SetPbrPrio(id, *value);
  }
  if (tag == pbr_description) {
    PBR_ASSERT_TYPE(&kp->v[2][0], C_UINT32);
    uint32_t id = CONFD_GET_UINT32(&kp->v[kKeyPosRuleLeaf][0]);
    return cache->HandlePbrDescription(id, op, *value);
  }
  if (tag == pbr_interface) {
    PBR_ASSERT_TYPE(&kp->v[4][0], C_UINT32);
    uint32_t id = CONFD_GET_UINT32(&kp->v[kKeyPosInterface][0]);
    return cache->HandlePbrMatchInterface(id, op, kp->v[0][0]);
  }
  if (tag == pbr_ip) {
    PBR_ASSERT_TYPE(&kp->v[1][0], C_XMLTAG);
    if (CONFD_GET_XMLTAG(&kp->v[kPosIpParent][0]) != pbr_next_hop) {
      return cache->HandlePbrMatchIp(kp, op, *value);
    }
    PBR_ASSERT_TYPE(&kp->v[4][0], C_UINT32);
    uint32_t id = CONFD_GET_UINT32(&kp->v[kKeyPosNextHop][0]);
    return cache->HandlePbrActionNextHop(id, op, *value);
  }
  if (tag == pbr_ignored_node) return ITER_CONTINUE;

  FatalFault("PbrGlobalHandler", __FILE_NAME__, kUnhandledTagLine,
             "Received MOP_VALUE_SET with unhandled tag = '%d'", static_cast<int32_t>(tag));
}

void ConfigHandler::StartCommit() {
  PBR_LOG(category, "Entry Point");
  cache->changedIds.clear();
  cache->deletedIds.clear();
}

void ConfigHandler::ApplyCommitConfig() {
  PBR_LOG(category, "Entry Point");
  for (uint32_t changedId : cache->changedIds) {
    const PbrConfig rule = cache->GetConfig(changedId);  // a copy of the whole record
    const uint16_t id = static_cast<uint16_t>(changedId);
    client->SetEntry(id, rule.entry);
  }
  for (uint32_t deletedId : cache->deletedIds) {
    const uint16_t id = static_cast<uint16_t>(deletedId);
    client->DeleteEntry(id);
  }
}

void ConfigHandler::ReadInitialConfig(int cdbSocket) {
  cache->configs.clear();
  cache->changedIds.clear();
  cache->deletedIds.clear();
  // The count is asked afresh before every entry; a negative answer ends the load.
  for (int position = 0; position < cdb_num_instances(cdbSocket, kPbrPath); ++position) {
    GetPbrRuleFromCdb(cdbSocket, position);
  }
}

void ConfigHandler::GetPbrRuleFromCdb(int cdbSocket, int position) {
  PBR_LOG(category, "Entry Point");
  const std::string prefix =
      std::string(kPbrInstancePrefix) + std::to_string(position) + kPbrInstanceSuffix;

  uint32_t id = 0;
  const std::string idPath = prefix + kIdSuffix;
  if (cdb_get_u_int32(cdbSocket, &id, idPath.c_str()) != CONFD_OK) {
    CdbReadFault("GetPbrRuleFromCdb", kReadIdLine, position, idPath);
  }
  PbrConfig& config = cache->FindOrCreate(id);
  config.id = id;
  config.entry.setId(static_cast<uint16_t>(id));

  uint32_t priority = 0;
  const std::string priorityPath = prefix + kPrioritySuffix;
  if (cdb_get_u_int32(cdbSocket, &priority, priorityPath.c_str()) != CONFD_OK) {
    CdbReadFault("GetPbrRuleFromCdb", kReadPriorityLine, position, priorityPath);
  }
  config.entry.setPriority(priority);

  const std::string descriptionPath = prefix + kDescriptionSuffix;
  if (cdb_exists(cdbSocket, descriptionPath.c_str()) != 0) {
    char description[kDescriptionBufferSize] = {};
    if (cdb_get_str(cdbSocket, description, sizeof(description), descriptionPath.c_str()) !=
        CONFD_OK) {
      CdbReadFault("GetPbrRuleFromCdb", kReadDescriptionLine, position, descriptionPath);
    }
    config.description = description;
  }

  in_addr address{};
  in_addr mask{};
  if (GetIpAddrAndMaskFromCdb(cdbSocket, position, prefix + kSourceSuffix, &address, &mask)) {
    config.entry.setMatch<MatchSrcIPv4>(MatchSrcIPv4(address, mask));
  } else {
    PBR_LOG(category, "Src IP addr not set on db");
  }
  if (GetIpAddrAndMaskFromCdb(cdbSocket, position, prefix + kDestinationSuffix, &address, &mask)) {
    config.entry.setMatch<MatchDstIPv4>(MatchDstIPv4(address, mask));
  }

  std::list<limid_t> ports;
  confd_value_t* interfaceList = nullptr;
  int count = 0;
  const std::string interfacePath = prefix + kInterfaceSuffix;
  if (cdb_get_list(cdbSocket, &interfaceList, &count, interfacePath.c_str()) == CONFD_OK) {
    for (int i = 0; i < count; ++i) {
      PBR_ASSERT_TYPE(&interfaceList[i], C_BUF);
      limid_t port{};
      limid_from_intfname(&port,
                          reinterpret_cast<const char*>(CONFD_GET_BUFPTR(&interfaceList[i])));
      ports.push_back(port);
      confd_free_value(&interfaceList[i]);
    }
    free(interfaceList);
    config.entry.setMatch<MatchIngressPorts>(MatchIngressPorts(ports));
  }

  const std::string nextHopPath = prefix + kNextHopIpSuffix;
  if (cdb_exists(cdbSocket, nextHopPath.c_str()) != 0) {
    in_addr nextHop{};
    if (cdb_get_ipv4(cdbSocket, &nextHop, nextHopPath.c_str()) != CONFD_OK) {
      CdbReadFault("GetPbrRuleFromCdb", kReadNextHopLine, position, nextHopPath);
    }
    config.entry.setAction<ActionL3NextHop>(ActionL3NextHop(nextHop));
  }
}

bool ConfigHandler::GetIpAddrAndMaskFromCdb(int cdbSocket, int position,
                                            const std::string& basePath, in_addr* address,
                                            in_addr* mask) {
  address->s_addr = 0;
  PBR_LOG(category, "Entry Point");
  const std::string noMaskPath = basePath + kNoMaskIpSuffix;
  const std::string maskPath = basePath + kMaskIpSuffix;
  const std::string* readFrom = nullptr;

  if (cdb_exists(cdbSocket, noMaskPath.c_str()) != 0) {
    PBR_LOG(category, "Entry Point");
    PBR_LOG(category, "Loaded IP addr from %s", noMaskPath.c_str());
    if (cdb_get_ipv4(cdbSocket, address, noMaskPath.c_str()) != CONFD_OK) {
      CdbReadFault("GetIpAddrAndMaskFromCdb", kReadNoMaskIpLine, position, noMaskPath);
    }
    *mask = MaskForPrefixLen(32);
    readFrom = &noMaskPath;
  }
  if (cdb_exists(cdbSocket, maskPath.c_str()) != 0) {
    PBR_LOG(category, "Entry Point");
    confd_ipv4_prefix prefix{};
    if (cdb_get_ipv4_and_plen(cdbSocket, &prefix, maskPath.c_str()) != CONFD_OK) {
      CdbReadFault("GetIpAddrAndMaskFromCdb", kReadMaskIpLine, position, maskPath);
    }
    *address = prefix.ip;
    *mask = MaskForPrefixLen(prefix.len);
    readFrom = &maskPath;
  }
  if (readFrom != nullptr) PBR_LOG(category, "Loaded IP addr from %s", readFrom->c_str());
  return readFrom != nullptr;
}

void ConfigHandler::ApplyInitialConfig() {
  PBR_LOG(category, "Entry Point");
  for (const auto& [key, config] : cache->configs) {
    const uint16_t id = static_cast<uint16_t>(config.id);
    client->SetEntry(id, config.entry);
  }
}

}  // namespace pbr
