// pbr-app: configures policy-based routing from /router/pbr and serves "show_pbr".
#include <iostream>
#include <string>
#include <vector>

#include "app/main.h"
#include "element/service/command_line.h"

namespace {

constexpr std::string_view kHelp =
    R"(Usage: pbr-app [--help] [--version]
The policy-based-routing daemon: applies the rules configured under /router/pbr in the
management server (pbr-mgmtd) to the PBR manager and serves the operational view of each
rule. Runs until SIGTERM or SIGINT; tells a service manager when it is ready (sd_notify).

  -h, --help       display this help and exit
  -V, --version    output version information and exit

Environment:
  PBR_ELEMENT_RUNTIME_DIR  registration lock, mgmt.sock, faults.log (/run/pbr-element)
  PBR_ELEMENT_STATE_DIR    the memory backend's pbr-manager.json (/var/lib/pbr-element)
  PBR_ELEMENT_BACKEND      the PBR manager's backend: memory or kernel (memory)
  PBR_ELEMENT_LOG          log file, or stderr (stderr)
  PBR_ELEMENT_TRACE        trace levels per log category, e.g. pbr-app=10 (all off)

Exit status: 0 stopped by a signal; 1 a fatal fault; 2 invalid arguments.
)";

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  if (auto status =
          pbr::service::HandleDaemonArguments("pbr-app", kHelp, args, std::cout, std::cerr)) {
    return *status;
  }
  return pbr::RunProcess();
}
