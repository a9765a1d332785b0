// Interface names behind logical interface identifiers (limid_t), for the PBR manager's
// backends. limid_from_intfname (platform/limid.h) interns names in a process-wide registry:
// an identifier stands for a name, not for an interface that has it now, just as the kernel's
// policy rules match an ingress interface by name. That keeps the daemon's per-rule conversion
// free of system calls and lets a rule name an interface before it exists. Single-threaded,
// like the element's loop.
#pragma once

#include <optional>
#include <string>

#include "platform/limid.h"

namespace pbr {

// Set in every identifier handed out, so that 0 and small numbers are never valid.
inline constexpr uint32_t kLimidRegistryBit = 0x80000000u;

// The interface name `id` stands for; empty when the identifier was never handed out.
std::optional<std::string> IntfNameFromLimid(limid_t id);

}  // namespace pbr
