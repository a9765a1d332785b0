// pbr-cli: the operator's command line for the element's management server. With a command it
// runs that command and exits with its status; without one it is an interactive shell.
#include <unistd.h>

#include <iostream>
#include <string>
#include <vector>

#include "element/cli/invocation.h"
#include "element/cli/session.h"
#include "element/cli/shell.h"
#include "element/service/command_line.h"

int main(int argc, char** argv) {
  using namespace pbr::cli;
  std::ios::sync_with_stdio(false);
  const std::vector<std::string> args(argv + 1, argv + argc);
  const Invocation invocation = ParseInvocation(args);
  if (!invocation.error.empty()) {
    // As GNU programs do: the reason, the usage lines, and where the rest is.
    const std::string_view usage = UsageText();
    std::cerr << "error: " << invocation.error << "\n"
              << usage.substr(0, usage.find("\n\n") + 1)
              << "Try 'pbr-cli --help' for more information.\n";
    return kExitUsage;
  }
  if (invocation.version) {
    std::cout << pbr::service::VersionText("pbr-cli") << std::flush;
    return kExitOk;
  }
  Session session({DefaultSocketPath(), invocation.timeout}, std::cout, std::cerr);
  if (!invocation.command) {
    return RunShell(session, std::cin, std::cerr, ::isatty(STDIN_FILENO) != 0);
  }
  return session.Run(*invocation.command, Context::kOneShot);
}
