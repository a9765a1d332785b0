#include "element/cli/invocation.h"

#include <cmath>
#include <cstdlib>

namespace pbr::cli {

Invocation ParseInvocation(const std::vector<std::string>& args) {
  Invocation invocation;
  size_t i = 0;
  for (; i < args.size() && args[i].starts_with("--timeout"); ++i) {
    std::string value;
    if (args[i] == "--timeout" && i + 1 < args.size()) {
      value = args[++i];
    } else if (args[i].starts_with("--timeout=")) {
      value = args[i].substr(10);
    } else {
      invocation.error = "--timeout needs a number of seconds";
      return invocation;
    }
    char* end = nullptr;
    const double seconds = std::strtod(value.c_str(), &end);
    if (value.empty() || *end != '\0' || !std::isfinite(seconds) || seconds <= 0 ||
        seconds > 24 * 3600) {
      invocation.error = "--timeout needs a number of seconds, not " + value;
      return invocation;
    }
    invocation.timeout = std::chrono::milliseconds(std::lround(seconds * 1000));
    if (invocation.timeout.count() == 0) invocation.timeout = std::chrono::milliseconds(1);
  }
  if (i == args.size()) return invocation;
  if (args[i] == "--version" || args[i] == "-V") {
    invocation.version = i + 1 == args.size();
    if (!invocation.version) invocation.error = args[i] + " takes no command";
    return invocation;
  }
  // Commands are words; --help and -h are the one option-like command.
  if (args[i].starts_with('-') && args[i] != "--help" && args[i] != "-h") {
    invocation.error = "unrecognized option '" + args[i] + "'";
    return invocation;
  }
  const std::vector<std::string> words(args.begin() + static_cast<long>(i), args.end());
  ParseResult parsed = Parse(words, Context::kOneShot);
  if (!parsed.command) {
    invocation.error = parsed.error;
    return invocation;
  }
  invocation.command = std::move(*parsed.command);
  return invocation;
}

}  // namespace pbr::cli
