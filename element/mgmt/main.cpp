// pbr-mgmtd: the element's management server. Logs to the element's log ($PBR_ELEMENT_LOG),
// tells a service manager it is ready with sd_notify once its socket accepts connections, and
// runs until SIGTERM or SIGINT.
#include <pwd.h>
#include <signal.h>
#include <stdlib.h>
#include <systemd/sd-daemon.h>
#include <systemd/sd-event.h>

#include <unistd.h>

#include "element/mgmt/netconf_server.h"
#include "element/mgmt/running_file.h"
#include "element/mgmt/server.h"
#include "element/middleware/log.h"
#include "element/middleware/loop.h"

namespace {

// NETCONF listens on netconf.sock beside mgmt.sock, and over SSH where
// PBR_ELEMENT_NETCONF_SSH gives an address and port (ADDRESS:PORT).
pbr::mgmt::NetconfOptions NetconfOptionsFromEnv(const pbr::mgmt::ServerOptions& server) {
  pbr::mgmt::NetconfOptions options;
  options.unixPath = server.runtimeDir + "/netconf.sock";
  options.hostKeyPath = server.stateDir + "/netconf_host_key";
  const passwd* self = ::getpwuid(::geteuid());
  options.sshUser = self ? self->pw_name : "root";
  const std::string home = self ? self->pw_dir : "/root";
  const char* keys = std::getenv("PBR_ELEMENT_NETCONF_AUTHORIZED_KEYS");
  options.authorizedKeysPath = keys ? keys : home + "/.ssh/authorized_keys";
  if (const char* ssh = std::getenv("PBR_ELEMENT_NETCONF_SSH"); ssh && *ssh) {
    const std::string endpoint = ssh;
    const size_t colon = endpoint.rfind(':');
    if (colon != std::string::npos) {
      options.sshAddress = endpoint.substr(0, colon);
      options.sshPort = static_cast<uint16_t>(std::atoi(endpoint.c_str() + colon + 1));
    }
  }
  if (const char* idle = std::getenv("PBR_ELEMENT_NETCONF_IDLE"); idle && std::atoi(idle) > 0) {
    options.idleTimeout = static_cast<uint16_t>(std::atoi(idle));
  }
  return options;
}

}  // namespace

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
  auto netconf =
      pbr::mgmt::NetconfServer::Start(server.get(), NetconfOptionsFromEnv(options), &error);
  if (!netconf) {
    vqmw::Logger().critical("pbr-mgmtd: NETCONF: {}", error);
    server.reset();
    sd_event_unref(event);
    return 1;
  }
  vqmw::Logger().info("pbr-mgmtd: serving {}/mgmt.sock", options.runtimeDir);
  sd_notify(0, "READY=1");
  const int r = sd_event_loop(event);
  // The NETCONF sessions hand their requests to the server: they end first.
  netconf.reset();
  server.reset();
  sd_event_unref(event);
  return r < 0 ? 1 : 0;
}
