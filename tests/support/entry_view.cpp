#include "tests/support/entry_view.h"

#include "tests/support/builders.h"

namespace view {
namespace {

template <typename T>
std::optional<std::string> Ipv4Match(const pbr::Entry& entry) {
  T match(in_addr{}, in_addr{});
  if (entry.getMatch<T>(match) == pbr::PBR_ERR_NOT_FOUND) return std::nullopt;
  return build::Text(match.getIPv4()) + "/" + build::Text(match.getIPv4Mask());
}

}  // namespace

std::optional<std::string> Source(const pbr::Entry& entry) {
  return Ipv4Match<pbr::MatchSrcIPv4>(entry);
}

std::optional<std::string> Destination(const pbr::Entry& entry) {
  return Ipv4Match<pbr::MatchDstIPv4>(entry);
}

std::optional<std::string> NextHop(const pbr::Entry& entry) {
  pbr::ActionL3NextHop action(in_addr{});
  if (entry.getAction<pbr::ActionL3NextHop>(action) == pbr::PBR_ERR_NOT_FOUND) return std::nullopt;
  return build::Text(action.getL3NextHop());
}

std::optional<std::vector<uint32_t>> Ports(const pbr::Entry& entry) {
  pbr::MatchIngressPorts match({});
  if (entry.getMatch<pbr::MatchIngressPorts>(match) == pbr::PBR_ERR_NOT_FOUND) return std::nullopt;
  std::vector<uint32_t> ids;
  for (const limid_t& port : match.getPorts()) ids.push_back(port.value);
  return ids;
}

}  // namespace view
