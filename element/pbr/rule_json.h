// The user's view of one programmed rule, as a backend shows it in its state file.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/pbr_model.h"

namespace pbr {

// One line of JSON, keys in a fixed order, for example
// {"id":7,"priority":100,"status":1,"match":{"ingress-interfaces":["eth0"],
//  "source-ipv4":{"address":"10.1.0.0","mask":"255.255.0.0"}},"action":{"next-hop":"192.0.2.1"}}
// `ingress_names` are the rule's ingress interfaces, already resolved by the caller; absent
// matches and actions are left out.
std::string RuleToJson(uint16_t id, const Entry& entry, uint32_t status,
                       const std::vector<std::string>& ingress_names);

}  // namespace pbr
