// The choice of PBR manager backend behind pbr::PbrClient::Build: PBR_ELEMENT_BACKEND names it
// ("memory" when unset).
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/pbr_client.h"

namespace pbr {

// The names PBR_ELEMENT_BACKEND accepts.
std::vector<std::string> BackendNames();

// A client on the backend called `name`, bound to the loop of `mw`; null with `error` set when
// there is no such backend or it cannot start.
std::unique_ptr<PbrClient> MakeClient(vqmw_t* mw, zlog_category_t* category, std::string_view name,
                                      std::string* error);

}  // namespace pbr
