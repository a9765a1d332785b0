// The PBR YANG module as the element loads it: compiled into the binary, so that the management
// server and its tools need no schema files at run time.
#pragma once

#include <libyang/libyang.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace pbr::yang {

inline constexpr const char* kModuleName = "pbr";

// The text of pbr.yang.
extern const std::string_view kModuleText;

struct ContextDeleter {
  void operator()(ly_ctx* ctx) const { ly_ctx_destroy(ctx); }
};
using Context = std::unique_ptr<ly_ctx, ContextDeleter>;

// A new libyang context holding the module (and the inet types it imports), created with the
// given LY_CTX_* options. On failure returns null and sets *error to libyang's message.
Context LoadContext(std::string* error, uint16_t options = 0);

// The compiled module in `ctx`.
const lys_module* Module(const ly_ctx* ctx);

}  // namespace pbr::yang
