#include "app/main.h"

#include <cstdlib>
#include <exception>

#include "app/app.h"
#include "common/fault.h"
#include "config/cache.h"
#include "platform/pbr_client.h"
#include "platform/vqmw.h"
#include "status/status.h"

namespace pbr {
namespace {

// Fault sites, fixed for the element's fault management.
constexpr int kRegistrationFaultLine = 19;
constexpr int kLoopErrorLine = 35;
constexpr int kUnknownErrorLine = 39;

}  // namespace

int RunProcess() {
  vqmw_t* mw = vqmw_init("pbr-app");
  if (mw == nullptr) FatalFault("main", __FILE_NAME__, kRegistrationFaultLine, nullptr);

  zlog_category_t* category = vqmw_trace_register_category("pbr-app");
  PbrClient* client = PbrClient::Build(mw, category);  // lives until the process ends
  ConfigCache cache;
  Status status(category, &cache);
  client->RegisterStatusListener(&status);
  App app(mw, category, client, &status, &cache);

  int exitStatus = 1;
  try {
    exitStatus = app.Run(0);
  } catch (const std::exception&) {
    char message[kFaultMessageSize] = {};
    snprintf(message, sizeof(message), "pbr-app error in vqmw loop\n");
    vqmw_gen_fault(0, "main", __FILE_NAME__, kLoopErrorLine, message);
    exitStatus = 1;
  } catch (...) {
    FatalFault("main", __FILE_NAME__, kUnknownErrorLine, "pbr-app unknown error\n");
  }
  vqmw_finish(&mw);
  return exitStatus;  // app, status and cache are destroyed in that order
}

}  // namespace pbr
