// JSON text of a rule for the backends' state files. Written by hand rather than through a JSON
// document: a burst of 65,536 rules is shown in one rewrite, and building a document per rule
// cost more than the rules themselves.
#include "element/pbr/rule_json.h"

#include <nlohmann/json.hpp>

#include "element/middleware/text.h"

namespace pbr {
namespace {

template <typename T>
std::optional<ShownRule::Prefix> PrefixOf(const Entry& entry) {
  T ipv4(in_addr{}, in_addr{});
  if (entry.getMatch(ipv4) != PBR_OK) return std::nullopt;
  return ShownRule::Prefix{ipv4.getIPv4(), ipv4.getIPv4Mask()};
}

using vqmw::AppendNumber;

void AppendAddress(const in_addr& address, std::string* out) {
  out->push_back('"');
  vqmw::AppendIpv4(address, out);
  out->push_back('"');
}

// Interface names are plain ASCII in practice; anything else goes through the JSON library,
// which escapes control characters and replaces invalid UTF-8.
void AppendString(const std::string& text, std::string* out) {
  for (const char c : text) {
    if (c < 0x20 || c > 0x7e || c == '"' || c == '\\') {
      out->append(
          nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
      return;
    }
  }
  out->push_back('"');
  out->append(text);
  out->push_back('"');
}

void AppendPrefix(const char* key, const ShownRule::Prefix& prefix, bool* first, std::string* out) {
  if (!*first) out->push_back(',');
  *first = false;
  out->append(key);
  out->append(":{\"address\":");
  AppendAddress(prefix.address, out);
  out->append(",\"mask\":");
  AppendAddress(prefix.mask, out);
  out->push_back('}');
}

}  // namespace

ShownRule ShownRule::Of(const Entry& entry, uint32_t status,
                        std::vector<std::string> ingress_names) {
  ShownRule rule;
  rule.priority = entry.getPriority();
  rule.status = status;
  MatchIngressPorts ports({});
  rule.hasIngress = entry.getMatch(ports) == PBR_OK;
  rule.ingress = std::move(ingress_names);
  rule.source = PrefixOf<MatchSrcIPv4>(entry);
  rule.destination = PrefixOf<MatchDstIPv4>(entry);
  ActionL3NextHop next_hop(in_addr{});
  if (entry.getAction(next_hop) == PBR_OK) rule.nextHop = next_hop.getL3NextHop();
  return rule;
}

void AppendRuleJson(uint16_t id, const ShownRule& rule, std::string* out) {
  out->append("{\"id\":");
  AppendNumber(id, out);
  out->append(",\"priority\":");
  AppendNumber(rule.priority, out);
  out->append(",\"status\":");
  AppendNumber(rule.status, out);
  out->append(",\"match\":{");
  bool first = true;
  if (rule.hasIngress) {
    out->append("\"ingress-interfaces\":[");
    for (size_t i = 0; i < rule.ingress.size(); ++i) {
      if (i > 0) out->push_back(',');
      AppendString(rule.ingress[i], out);
    }
    out->push_back(']');
    first = false;
  }
  if (rule.source) AppendPrefix("\"source-ipv4\"", *rule.source, &first, out);
  if (rule.destination) AppendPrefix("\"destination-ipv4\"", *rule.destination, &first, out);
  out->append("},\"action\":{");
  if (rule.nextHop) {
    out->append("\"next-hop\":");
    AppendAddress(*rule.nextHop, out);
  }
  out->append("}}");
}

}  // namespace pbr
