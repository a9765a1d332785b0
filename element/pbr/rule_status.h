// The status codes a PBR manager backend reports through PbrStatusItf::StatusUpdateCb.
#pragma once

#include <cstdint>

namespace pbr {

enum RuleStatus : uint32_t {
  kRuleNotProgrammed = 0,  // deleted, or never programmed
  kRuleProgrammed = 1,
  kRuleFailed = 2,  // the backend could not program the rule; its log says why
};

}  // namespace pbr
