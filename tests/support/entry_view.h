// Reads a pbr::Entry through its public operations into texts that tests compare.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/pbr_model.h"

namespace view {

// "10.1.0.0/255.255.0.0", or nullopt when the entry has no such match.
std::optional<std::string> Source(const pbr::Entry& entry);
std::optional<std::string> Destination(const pbr::Entry& entry);
// "10.0.0.1", or nullopt without a next-hop action.
std::optional<std::string> NextHop(const pbr::Entry& entry);
// The ingress ports' identifiers in order, or nullopt without an ingress-ports match.
std::optional<std::vector<uint32_t>> Ports(const pbr::Entry& entry);

}  // namespace view
