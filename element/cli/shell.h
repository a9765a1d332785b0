// The interactive form of pbr-cli: reads commands line by line and runs them in one session.
// On a terminal it edits lines with readline, completes command words and keeps a history in
// $HOME/.pbr_cli_history; from a pipe it reads plain lines, so scripts can feed it.
#pragma once

#include <istream>
#include <ostream>

#include "element/cli/session.h"

namespace pbr::cli {

// Runs until exit or the end of the input. Returns kExitOk when every command succeeded, else
// the status of the last one that failed. `terminal`: read with readline from stdin instead of
// from `in`.
int RunShell(Session& session, std::istream& in, std::ostream& err, bool terminal);

}  // namespace pbr::cli
