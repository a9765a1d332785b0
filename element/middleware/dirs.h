// The element's directories, from its configuration (RuntimeDir is declared in loop.h).
#pragma once

#include <string>

namespace vqmw {

// The element's persisted state (the PBR manager's view of its rules), created on first use:
// $PBR_ELEMENT_STATE_DIR, else /var/lib/pbr-element. Like RuntimeDir, the variable is read on
// every call, so that a test can point each case at a directory of its own.
const std::string& StateDir();

}  // namespace vqmw
