// pbr-mgmtd: the element's management server. Logs to the element's log ($PBR_ELEMENT_LOG),
// tells a service manager it is ready with sd_notify once its socket accepts connections, and
// runs until SIGTERM or SIGINT. SIGHUP reopens the log file, for log rotation.
#include <signal.h>
#include <systemd/sd-daemon.h>
#include <systemd/sd-event.h>

#include "element/mgmt/running_file.h"
#include "element/mgmt/server.h"
#include "element/middleware/log.h"
#include "element/middleware/loop.h"

namespace {

int OnHangup(sd_event_source*, const signalfd_siginfo*, void*) {
  vqmw::Logger().info("pbr-mgmtd: SIGHUP received, reopening the log");
  vqmw::ReopenLog();
  vqmw::Logger().info("pbr-mgmtd: log reopened");
  return 0;
}

}  // namespace

int main() {
  pbr::mgmt::ServerOptions options;
  options.runtimeDir = vqmw::RuntimeDir();
  options.stateDir = pbr::mgmt::StateDir();

  sigset_t mask;
  sigemptyset(&mask);
  sigaddset(&mask, SIGTERM);
  sigaddset(&mask, SIGINT);
  sigaddset(&mask, SIGHUP);
  sigprocmask(SIG_BLOCK, &mask, nullptr);

  sd_event* event = nullptr;
  if (sd_event_default(&event) < 0) return 1;
  sd_event_add_signal(event, nullptr, SIGTERM, nullptr, nullptr);
  sd_event_add_signal(event, nullptr, SIGINT, nullptr, nullptr);
  sd_event_add_signal(event, nullptr, SIGHUP, OnHangup, nullptr);

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
