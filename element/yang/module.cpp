#include "element/yang/module.h"

namespace pbr::yang {

Context LoadContext(std::string* error, uint16_t options) {
  ly_ctx* raw = nullptr;
  // No search directories: the module is parsed from memory and its one import is built in.
  if (ly_ctx_new(nullptr, LY_CTX_NO_YANGLIBRARY | options, &raw) != LY_SUCCESS) {
    *error = "cannot create a libyang context";
    return nullptr;
  }
  Context ctx(raw);
  const std::string text(kModuleText);
  if (lys_parse_mem(ctx.get(), text.c_str(), LYS_IN_YANG, nullptr) != LY_SUCCESS) {
    const char* msg = ly_errmsg(ctx.get());
    *error = std::string("cannot load the PBR module: ") + (msg ? msg : "unknown error");
    return nullptr;
  }
  return ctx;
}

const lys_module* Module(const ly_ctx* ctx) {
  return ly_ctx_get_module_implemented(ctx, kModuleName);
}

}  // namespace pbr::yang
