#include "app/app.h"

#include <vector>

namespace pbr {
namespace {

constexpr const char* kAppName = "pbr-app";

}  // namespace

App::App(vqmw_t* handle, zlog_category_t* logCategory, PbrClient* client, Status* statusHandler,
         ConfigCache* cache)
    : mw(handle),
      category(logCategory),
      configHandler(logCategory, client, cache),
      status(statusHandler),
      appInterface(
          handle, logCategory, kAppName, std::vector<vqconfd::ConfigHandler*>{&configHandler},
          std::vector<vqconfd::ActionHandler*>{}, std::vector<vqconfd::DataHandler*>{statusHandler},
          vqconfd::ELEM_CONFD_PHASE_2, 0) {}

int App::Run(int timeout) {
  bool running = true;  // never cleared: the middleware decides when the loop ends
  return vqmw_loop_while_timeout(mw, &running, timeout) != 0 ? 1 : 0;
}

}  // namespace pbr
