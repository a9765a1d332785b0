// pbr-mgmtd: the element's management server. Runs until SIGTERM or SIGINT.
#include <signal.h>
#include <spdlog/spdlog.h>
#include <systemd/sd-event.h>

#include <cstdlib>

#include "element/mgmt/running_file.h"
#include "element/mgmt/server.h"

int main() {
  const char* runtime = std::getenv("PBR_ELEMENT_RUNTIME_DIR");
  pbr::mgmt::ServerOptions options;
  options.runtimeDir = runtime && *runtime ? runtime : "/run/pbr-element";
  options.stateDir = pbr::mgmt::StateDir();

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
    spdlog::critical("pbr-mgmtd: {}", error);
    sd_event_unref(event);
    return 1;
  }
  spdlog::info("pbr-mgmtd: serving {}/mgmt.sock", options.runtimeDir);
  const int r = sd_event_loop(event);
  server.reset();
  sd_event_unref(event);
  return r < 0 ? 1 : 0;
}
