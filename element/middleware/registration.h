// The identity the process registered under, for the middleware's own records.
#pragma once

#include <string>

namespace vqmw {

// The name last passed to vqmw_init (also when registration failed, so that the fault the
// caller then reports names it); empty before.
const std::string& AppName();

}  // namespace vqmw
