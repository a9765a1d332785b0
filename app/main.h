// The process entry of pbr-app, callable from tests in a child process.
#pragma once

namespace pbr {

// Registers with the middleware, builds the daemon, runs the loop and tears down. Returns the
// exit status: 0 when the loop ended normally, 1 otherwise. Fatal faults exit(1) from inside.
int RunProcess();

}  // namespace pbr
