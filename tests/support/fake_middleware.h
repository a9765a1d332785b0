// A stateful stand-in for the middleware and zlog: records categories, log records, fault
// reports and backtraces, and lets a test script registration and the loop.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "platform/vqmw.h"

namespace fake {

struct LogRecord {
  std::string category;
  int level;
  std::string file;
  std::string func;
  long line;
  std::string text;
};

struct FaultRecord {
  int severity;
  std::string func;
  std::string file;
  int line;
  std::string message;
};

struct MiddlewareState {
  // Scripting.
  bool initFails = false;
  bool traceEnabled = true;                      // level 10 on every category
  std::function<int()> loop = [] { return 0; };  // body of vqmw_loop_while_timeout

  // What happened.
  std::vector<std::string> categories;  // registered names, in order
  std::vector<LogRecord> logs;
  std::vector<FaultRecord> faults;
  int backtraces = 0;
  int levelQueries = 0;
  std::vector<std::string>
      journal;        // init, loop, finish, backtrace, fault, and other fakes' events
  bool echo = false;  // also write journal lines to stderr (for child processes)

  // Texts of the records written by `func` (all functions when empty).
  std::vector<std::string> Texts(const std::string& func = "") const;
  bool Logged(const std::string& text) const;
};

MiddlewareState& Middleware();
void ResetMiddleware();
// Appends to the journal (and echoes it when asked): for fakes that take part in ordering tests.
void Journal(const std::string& event);

}  // namespace fake
