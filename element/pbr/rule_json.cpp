// JSON text of a rule for the backends' state files.
#include "element/pbr/rule_json.h"

#include <arpa/inet.h>

#include <nlohmann/json.hpp>

namespace pbr {
namespace {

std::string AddressText(const in_addr& address) {
  char text[INET_ADDRSTRLEN];
  inet_ntop(AF_INET, &address, text, sizeof text);
  return text;
}

template <typename T>
void AddIPv4Match(const Entry& entry, const char* key, nlohmann::ordered_json& match) {
  T ipv4(in_addr{}, in_addr{});
  if (entry.getMatch(ipv4) != PBR_OK) return;
  match[key] = {{"address", AddressText(ipv4.getIPv4())},
                {"mask", AddressText(ipv4.getIPv4Mask())}};
}

}  // namespace

std::string RuleToJson(uint16_t id, const Entry& entry, uint32_t status,
                       const std::vector<std::string>& ingress_names) {
  nlohmann::ordered_json rule;
  rule["id"] = id;
  rule["priority"] = entry.getPriority();
  rule["status"] = status;

  nlohmann::ordered_json match = nlohmann::ordered_json::object();
  MatchIngressPorts ports({});
  if (entry.getMatch(ports) == PBR_OK) match["ingress-interfaces"] = ingress_names;
  AddIPv4Match<MatchSrcIPv4>(entry, "source-ipv4", match);
  AddIPv4Match<MatchDstIPv4>(entry, "destination-ipv4", match);
  rule["match"] = std::move(match);

  nlohmann::ordered_json action = nlohmann::ordered_json::object();
  ActionL3NextHop next_hop(in_addr{});
  if (entry.getAction(next_hop) == PBR_OK)
    action["next-hop"] = AddressText(next_hop.getL3NextHop());
  rule["action"] = std::move(action);

  return rule.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace pbr
