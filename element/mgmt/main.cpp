// pbr-mgmtd: the element's management server. Logs to the element's log ($PBR_ELEMENT_LOG),
// tells a service manager it is ready with sd_notify once its socket accepts connections, and
// runs until SIGTERM or SIGINT. SIGHUP reopens the log file, for log rotation.
#include <malloc.h>
#include <pwd.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <systemd/sd-daemon.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <charconv>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

#include "element/mgmt/netconf_server.h"
#include "element/mgmt/running_file.h"
#include "element/mgmt/server.h"
#include "element/middleware/log.h"
#include "element/middleware/loop.h"
#include "element/service/command_line.h"

namespace {

constexpr std::string_view kHelp =
    R"(Usage: pbr-mgmtd [--help] [--version]
The element's management server: keeps the running configuration (YANG module pbr), commits
the changes of pbr-cli and other clients to it, delivers each commit to the daemons that
subscribe to it and serves their operational data. Listens on $PBR_ELEMENT_RUNTIME_DIR/mgmt.sock
and runs until SIGTERM or SIGINT; tells a service manager when it is ready (sd_notify).

  -h, --help       display this help and exit
  -V, --version    output version information and exit

Environment:
  PBR_ELEMENT_RUNTIME_DIR  mgmt.sock and mgmt.lock (/run/pbr-element)
  PBR_ELEMENT_STATE_DIR    running.json and its commit journal (/var/lib/pbr-element)
  PBR_ELEMENT_LOG          log file, or stderr (stderr)
  PBR_ELEMENT_NETCONF_SSH  NETCONF over SSH on ADDRESS:PORT (off; netconf.sock always)
  PBR_ELEMENT_NETCONF_AUTHORIZED_KEYS
                           keys that may log in over SSH (~/.ssh/authorized_keys)
  PBR_ELEMENT_NETCONF_IDLE seconds before an idle NETCONF session is closed (3600)

Exit status: 0 stopped by a signal; 1 cannot start (another server runs, the stored
configuration is invalid, the socket cannot be made); 2 invalid arguments.
)";

// SIGTERM and SIGINT end the loop; the log says so, so that a stop is told apart from a crash.
int OnStop(sd_event_source* source, const signalfd_siginfo* info, void*) {
  vqmw::Logger().info("pbr-mgmtd: {} received, stopping", strsignal(info->ssi_signo));
  return sd_event_exit(sd_event_source_get_event(source), 0);
}

int OnHangup(sd_event_source*, const signalfd_siginfo*, void*) {
  vqmw::Logger().info("pbr-mgmtd: SIGHUP received, reopening the log");
  vqmw::ReopenLog();
  vqmw::Logger().info("pbr-mgmtd: log reopened");
  return 0;
}

// A whole number in 1..65535, as a port or a number of seconds; nothing else.
bool ParseUint16(std::string_view text, uint16_t* value) {
  const char* end = text.data() + text.size();
  auto [ptr, ec] = std::from_chars(text.data(), end, *value);
  return ec == std::errc() && ptr == end && *value > 0;
}

// NETCONF listens on netconf.sock beside mgmt.sock, and over SSH where
// PBR_ELEMENT_NETCONF_SSH gives an address and port (ADDRESS:PORT). A value that cannot be
// meant is refused rather than taken in part: the server would listen where nobody looks.
bool NetconfOptionsFromEnv(const pbr::mgmt::ServerOptions& server,
                           pbr::mgmt::NetconfOptions* options, std::string* error) {
  options->unixPath = server.runtimeDir + "/netconf.sock";
  options->hostKeyPath = server.stateDir + "/netconf_host_key";
  const passwd* self = ::getpwuid(::geteuid());
  options->sshUser = self ? self->pw_name : "root";
  const std::string home = self ? self->pw_dir : "/root";
  const char* keys = std::getenv("PBR_ELEMENT_NETCONF_AUTHORIZED_KEYS");
  options->authorizedKeysPath = keys ? keys : home + "/.ssh/authorized_keys";
  if (const char* ssh = std::getenv("PBR_ELEMENT_NETCONF_SSH"); ssh && *ssh) {
    const std::string_view endpoint = ssh;
    const size_t colon = endpoint.rfind(':');
    if (colon == std::string_view::npos || colon == 0 ||
        !ParseUint16(endpoint.substr(colon + 1), &options->sshPort)) {
      *error = "PBR_ELEMENT_NETCONF_SSH is ADDRESS:PORT with a port 1..65535, not '" +
               std::string(endpoint) + "'";
      return false;
    }
    options->sshAddress = endpoint.substr(0, colon);
  }
  if (const char* idle = std::getenv("PBR_ELEMENT_NETCONF_IDLE"); idle && *idle) {
    if (!ParseUint16(idle, &options->idleTimeout)) {
      *error = "PBR_ELEMENT_NETCONF_IDLE is a number of seconds 1..65535, not '" +
               std::string(idle) + "'";
      return false;
    }
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  // The loop and the NETCONF sessions' threads allocate from one arena. A thread's own arena
  // grows by small mprotect steps and hands freed memory back at once, so a bulk edit parsed on
  // a session's thread faulted its pages in twice over: 30% slower, 150 MiB more at its peak.
  mallopt(M_ARENA_MAX, 1);
  const std::vector<std::string> args(argv + 1, argv + argc);
  if (auto status =
          pbr::service::HandleDaemonArguments("pbr-mgmtd", kHelp, args, std::cout, std::cerr)) {
    return *status;
  }
  pbr::mgmt::ServerOptions options;
  options.extendContext = pbr::mgmt::NetconfServer::LoadModules;
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
  sigaddset(&mask, SIGHUP);
  sigprocmask(SIG_BLOCK, &mask, nullptr);

  sd_event* event = nullptr;
  if (sd_event_default(&event) < 0) return 1;
  sd_event_add_signal(event, nullptr, SIGTERM, OnStop, nullptr);
  sd_event_add_signal(event, nullptr, SIGINT, OnStop, nullptr);
  sd_event_add_signal(event, nullptr, SIGHUP, OnHangup, nullptr);

  std::string error;
  auto server = pbr::mgmt::Server::Create(event, options, &error);
  if (!server) {
    vqmw::Logger().critical("pbr-mgmtd: {}", error);
    sd_event_unref(event);
    return 1;
  }
  pbr::mgmt::NetconfOptions netconfOptions;
  std::unique_ptr<pbr::mgmt::NetconfServer> netconf;
  if (NetconfOptionsFromEnv(options, &netconfOptions, &error)) {
    netconf = pbr::mgmt::NetconfServer::Start(server.get(), netconfOptions, &error);
  }
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
