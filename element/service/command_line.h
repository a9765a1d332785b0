// The command-line conventions every program of the element follows (GNU): --help and --version
// answer on stdout and exit 0; an argument the program does not know is refused with a usage line
// on stderr and exit status 2.
#pragma once

#include <optional>
#include <ostream>
#include <span>
#include <string>
#include <string_view>

namespace pbr::service {

inline constexpr int kExitUsage = 2;

// The version of the element's programs, from the build (the CMake project's version).
std::string_view Version();

// "NAME (pbr-app) VERSION", the first line of --version.
std::string VersionText(std::string_view program);

// For a daemon that takes no arguments but --help/-h and --version/-V. `help` is the whole --help
// text; its first line is the usage line repeated on a refusal. The exit status to end with, or
// nothing when the daemon should run.
std::optional<int> HandleDaemonArguments(std::string_view program, std::string_view help,
                                         std::span<const std::string> args, std::ostream& out,
                                         std::ostream& err);

}  // namespace pbr::service
