// pbr-cli's command line: the options that apply to every command, then the command itself.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "element/cli/command.h"

namespace pbr::cli {

struct Invocation {
  // How long to wait for the server to accept and answer each request.
  std::chrono::milliseconds timeout{30000};
  std::optional<Command> command;  // empty: the interactive shell (unless `version`)
  bool version = false;            // --version: print the version and exit
  std::string error;               // set when the command line is not valid
};

// `args` without the program name: [--timeout SECONDS] [--version | COMMAND WORDS...].
Invocation ParseInvocation(const std::vector<std::string>& args);

}  // namespace pbr::cli
