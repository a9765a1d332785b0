#include "status/status.h"

#include <arpa/inet.h>

#include "common/fault.h"
#include "common/log.h"
#include "common/netmask.h"
#include "common/pbr_schema.h"

namespace pbr {
namespace {

constexpr int kKeypathTextSize = 8192;
constexpr int kMaxReplyValues = 10;

}  // namespace

StatusCallpoint::StatusCallpoint(const std::string& callpointName, zlog_category_t* logCategory,
                                 ConfigCache* ruleCache, Status* owner)
    : name(callpointName), category(logCategory), cache(ruleCache), status(owner) {}

const char* StatusCallpoint::GetCallpointName() {
  return name.c_str();
}

int StatusCallpoint::GetObjectCallback(confd_trans_ctx* tctx, confd_hkeypath_t* keypath) {
  PBR_LOG(category, "Entry Point");
  char kpText[kKeypathTextSize];
  confd_pp_kpath(kpText, sizeof(kpText), keypath);
  PBR_LOG(category, "Received getObject request for '%s'", kpText);

  PBR_ASSERT_TYPE(&(keypath->v[0][0]), C_UINT32);
  const uint32_t id = CONFD_GET_UINT32(&keypath->v[0][0]);
  const PbrConfig& rule = cache->GetConfig(id);

  std::string source;
  std::string destination;
  std::string nextHop;
  // The ConfD value macros evaluate their argument more than once: fill slot by slot.
  confd_tag_value_t reply[kMaxReplyValues];
  int n = 0;
  confd_tag_value_t* tv = &reply[n++];
  CONFD_SET_TAG_UINT32(tv, pbr_id, id);
  tv = &reply[n++];
  CONFD_SET_TAG_XMLBEGIN(tv, pbr_rule, pbr__ns);
  tv = &reply[n++];
  CONFD_SET_TAG_NOEXISTS(tv, pbr_priority);
  tv = &reply[n++];
  if (GetIpStringFromEntry(kSourceIp, rule, source)) {
    CONFD_SET_TAG_STR(tv, pbr_source_ip, source.data());
  } else {
    CONFD_SET_TAG_NOEXISTS(tv, pbr_source_ip);
  }
  tv = &reply[n++];
  if (GetIpStringFromEntry(kDestinationIp, rule, destination)) {
    CONFD_SET_TAG_STR(tv, pbr_destination_ip, destination.data());
  } else {
    CONFD_SET_TAG_NOEXISTS(tv, pbr_destination_ip);
  }
  tv = &reply[n++];
  CONFD_SET_TAG_NOEXISTS(tv, pbr_interfaces);
  if (!GetIpStringFromEntry(kNextHopIp, rule, nextHop)) nextHop = kL3RoutingText;
  tv = &reply[n++];
  CONFD_SET_TAG_STR(tv, pbr_action, nextHop.data());
  // Codes the view has no name for are left out.
  const uint32_t code = status->GetHwStatus(static_cast<uint16_t>(id));
  if (code <= 2) {
    tv = &reply[n++];
    CONFD_SET_TAG_ENUM_VALUE(tv, pbr_hw_status, static_cast<int32_t>(code));
  }
  tv = &reply[n++];
  CONFD_SET_TAG_NOEXISTS(tv, pbr_description);
  tv = &reply[n++];
  CONFD_SET_TAG_XMLEND(tv, pbr_rule, pbr__ns);

  confd_data_reply_tag_value_array(tctx, reply, n);
  return CONFD_OK;
}

bool StatusCallpoint::GetIpStringFromEntry(int kind, const PbrConfig& rule, std::string& out) {
  PBR_LOG(category, "Entry Point");
  const in_addr zero{};
  in_addr address{};
  in_addr mask{};
  if (kind == kNextHopIp) {
    ActionL3NextHop action(zero);
    if (rule.entry.getAction<ActionL3NextHop>(action) == PBR_ERR_NOT_FOUND) return false;
    address = action.getL3NextHop();
  } else if (kind == kSourceIp) {
    MatchSrcIPv4 match(zero, zero);
    if (rule.entry.getMatch<MatchSrcIPv4>(match) == PBR_ERR_NOT_FOUND) return false;
    address = match.getIPv4();
    mask = match.getIPv4Mask();
  } else {
    MatchDstIPv4 match(zero, zero);
    if (rule.entry.getMatch<MatchDstIPv4>(match) == PBR_ERR_NOT_FOUND) return false;
    address = match.getIPv4();
    mask = match.getIPv4Mask();
  }

  char addressText[INET_ADDRSTRLEN];
  char maskText[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &address, addressText, sizeof(addressText));
  out = addressText;
  if (kind != kNextHopIp) {
    inet_ntop(AF_INET, &mask, maskText, sizeof(maskText));
    const int32_t prefixLen = MaskToPrefixLen.at(maskText);
    if (prefixLen != 32) out += "/" + std::to_string(prefixLen);
    if (kind == kSourceIp) {
      PBR_LOG(category, "source ip = '%s[%x] - %s[%x]'", addressText, address.s_addr, maskText,
              static_cast<unsigned>(prefixLen));
    }
  }
  PBR_LOG(category, "source ip = '%s - %s'", addressText, maskText);
  return true;
}

Status::Status(zlog_category_s* logCategory, ConfigCache* ruleCache)
    : vqconfd::DataHandler(true, false, true, false, false, true, false), category(logCategory) {
  for (const std::string& name : GetCallpointNames()) {
    callpoints.push_back(new StatusCallpoint(name, category, ruleCache, this));
  }
  PBR_LOG(category, "Status handling initialized");
}

Status::~Status() {
  for (vqconfd::DataHandler::Callpoint* callpoint : callpoints) delete callpoint;
}

std::vector<vqconfd::DataHandler::Callpoint*>& Status::GetCallpoints() {
  return callpoints;
}

std::vector<std::string> Status::GetCallpointNames() {
  return {kShowPbrCallpoint};
}

void Status::StatusUpdateCb(const uint16_t& id, uint32_t code) {
  PBR_LOG(category, "PBR next-hop update callback: id %u = %u", static_cast<unsigned>(id), code);
  SetHwStatus(id, code);
}

void Status::SetHwStatus(uint16_t id, uint32_t code) {
  PBR_LOG(category, "Entry Point");
  hwStatus[id] = code;
}

uint32_t Status::GetHwStatus(uint16_t id) {
  PBR_LOG(category, "Entry Point");
  return hwStatus.try_emplace(id, 0).first->second;
}

}  // namespace pbr
