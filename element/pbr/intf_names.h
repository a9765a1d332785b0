// Interface names behind logical interface identifiers (limid_t), for the PBR manager's
// backends. limid_from_intfname (platform/limid.h) hands out a kernel ifindex for an interface
// that exists and otherwise an identifier from a process-wide registry, with the high bit set
// so that it never collides with an ifindex. Single-threaded, like the element's loop.
#pragma once

#include <optional>
#include <string>

#include "platform/limid.h"

namespace pbr {

// Set in every registry identifier; kernel ifindexes are positive ints and never have it.
inline constexpr uint32_t kLimidRegistryBit = 0x80000000u;

// The interface name `id` stands for: the registered name, or the kernel's current name for an
// ifindex. Empty when the identifier was never handed out or the ifindex no longer exists.
std::optional<std::string> IntfNameFromLimid(limid_t id);

}  // namespace pbr
