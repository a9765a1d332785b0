#include "element/service/command_line.h"

namespace pbr::service {

std::string_view Version() {
  return PBR_VERSION;
}

std::string VersionText(std::string_view program) {
  return std::string(program) + " (pbr-app) " + std::string(Version()) + "\n";
}

std::optional<int> HandleDaemonArguments(std::string_view program, std::string_view help,
                                         std::span<const std::string> args, std::ostream& out,
                                         std::ostream& err) {
  if (args.empty()) return std::nullopt;
  const std::string& arg = args.front();
  if (args.size() == 1 && (arg == "--help" || arg == "-h")) {
    out << help << std::flush;
    return 0;
  }
  if (args.size() == 1 && (arg == "--version" || arg == "-V")) {
    out << VersionText(program) << std::flush;
    return 0;
  }
  // The first argument that is not a lone --help or --version is the one refused.
  const std::string& bad =
      (arg == "--help" || arg == "-h" || arg == "--version" || arg == "-V") ? args[1] : arg;
  err << program << ": "
      << (bad.starts_with('-') ? "unrecognized option '" : "unexpected argument '") << bad << "'\n"
      << help.substr(0, help.find('\n') + 1) << "Try '" << program
      << " --help' for more information.\n"
      << std::flush;
  return kExitUsage;
}

}  // namespace pbr::service
