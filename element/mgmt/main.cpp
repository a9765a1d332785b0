// pbr-mgmtd: the element's management server. Logs to the element's log ($PBR_ELEMENT_LOG),
// tells a service manager it is ready with sd_notify once its socket accepts connections, and
// runs until SIGTERM or SIGINT.
#include <signal.h>
#include <stdlib.h>
#include <systemd/sd-daemon.h>
#include <systemd/sd-event.h>

#include "element/mgmt/running_file.h"
#include "element/mgmt/server.h"
#include "element/middleware/log.h"
#include "element/middleware/loop.h"

int main() {
  pbr::mgmt::ServerOptions options;
  options.runtimeDir = vqmw::RuntimeDir();
  options.stateDir = pbr::mgmt::StateDir();
  // How many commits the history keeps at least.
  if (const char* keep = std::getenv("PBR_ELEMENT_HISTORY"); keep && std::atoi(keep) > 0) {
    options.historySize = static_cast<size_t>(std::atoi(keep));
  }

  sigset_t mask;
  sigemptyset(&mask);
  sigaddset(&mask, SIGTERM);
  sigaddset(&mask, SIGINT);
  sigprocmask(SIG_BLOCK, &mask, nullptr);

  sd_event* event = nullptr;
  if (sd_event_default(&event) < 0) return 1;
  sd_event_add_signal(event, nullptr, SIGTERM, nullptr, nullptr);
  sd_event_add_signal(event, nullptr, SIGINT, nullptr, nullptr);

  std::string error;
  auto server = pbr::mgmt::Server::Create(event, options, &error);
  if (!server) {
    vqmw::Logger().critical("pbr-mgmtd: {}", error);
    sd_event_unref(event);
    return 1;
  }
  vqmw::Logger().info("pbr-mgmtd: serving {}/mgmt.sock", options.runtimeDir);
  sd_notify(0, "READY=1");
  const int r = sd_event_loop(event);
  server.reset();
  sd_event_unref(event);
  return r < 0 ? 1 : 0;
}
