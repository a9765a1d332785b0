// Interface names to identifiers: a registry that hands out 100, 101, ... in order of first use.
#pragma once

#include "platform/limid.h"

namespace fake {

limid_t LimidOf(const char* name);

}  // namespace fake
