// The handler bases are the element's own (element/framework/handlers.cpp); only the binding is
// faked.
#include "tests/support/fake_framework.h"

#include <stdexcept>

#include "tests/support/fake_middleware.h"

namespace fake {
namespace {

Binding last;
bool failNext = false;

}  // namespace

Binding& LastBinding() {
  return last;
}
void FailNextBinding() {
  failNext = true;
}

}  // namespace fake

namespace vqconfd {

struct AppInterface::Impl {};

AppInterface::AppInterface(vqmw_t* mw, zlog_category_t* category, const char* appName,
                           const std::vector<ConfigHandler*>& configHandlers,
                           const std::vector<ActionHandler*>& actionHandlers,
                           const std::vector<DataHandler*>& dataHandlers, ELEM_CONFD_PHASE_ET phase,
                           int options) {
  if (fake::failNext) {
    fake::failNext = false;
    throw std::runtime_error("binding failed");
  }
  fake::last =
      fake::Binding{mw,    category, appName, configHandlers, actionHandlers.size(), dataHandlers,
                    phase, options,  true};
  fake::Journal("AppInterface");
}

// Reads the handlers as the real binding does when it lets go of them: destroying a handler
// before its binding shows up here under AddressSanitizer.
AppInterface::~AppInterface() {
  size_t held = 0;
  for (ConfigHandler* h : fake::last.configHandlers) held += h->GetSubscriptionPoints().size();
  for (DataHandler* h : fake::last.dataHandlers) held += h->GetCallpoints().size();
  fake::last.alive = false;
  fake::Journal("~AppInterface holding " + std::to_string(held));
}

}  // namespace vqconfd
