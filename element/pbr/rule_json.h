// The user's view of one programmed rule, as a backend shows it in its state file.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/pbr_model.h"

namespace pbr {

// What a state file shows of a rule: the values of its matches and action, without the model's
// per-match objects, so that a backend can keep tens of thousands of them cheaply.
struct ShownRule {
  struct Prefix {
    in_addr address;
    in_addr mask;
  };
  uint32_t priority = 0;
  uint32_t status = 0;
  bool hasIngress = false;
  std::vector<std::string> ingress;  // resolved names, in the match's order
  std::optional<Prefix> source;
  std::optional<Prefix> destination;
  std::optional<in_addr> nextHop;

  // The rule's values; `ingress_names` are its ingress interfaces, already resolved by the caller.
  static ShownRule Of(const Entry& entry, uint32_t status, std::vector<std::string> ingress_names);
};

// Appends the rule as one line of JSON, keys in a fixed order, for example
// {"id":7,"priority":100,"status":1,"match":{"ingress-interfaces":["eth0"],
//  "source-ipv4":{"address":"10.1.0.0","mask":"255.255.0.0"}},"action":{"next-hop":"192.0.2.1"}}
// Absent matches and actions are left out.
void AppendRuleJson(uint16_t id, const ShownRule& rule, std::string* out);

}  // namespace pbr
