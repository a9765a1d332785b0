#include "tests/support/fake_middleware.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <deque>

#include "element/middleware/log.h"

struct zlog_category_s {
  std::string name;
};
struct vqmw_s {
  int unused;
};

namespace fake {
namespace {

MiddlewareState state;
std::deque<zlog_category_s> categoryStore;  // stable addresses
vqmw_s handle;

}  // namespace

MiddlewareState& Middleware() {
  return state;
}

void ResetMiddleware() {
  state = MiddlewareState{};
}

void Journal(const std::string& event) {
  state.journal.push_back(event);
  if (state.echo) fprintf(stderr, "[journal] %s\n", event.c_str());
}

std::vector<std::string> MiddlewareState::Texts(const std::string& func) const {
  std::vector<std::string> texts;
  for (const LogRecord& r : logs)
    if (func.empty() || r.func == func) texts.push_back(r.text);
  return texts;
}

bool MiddlewareState::Logged(const std::string& text) const {
  return std::any_of(logs.begin(), logs.end(), [&](const LogRecord& r) { return r.text == text; });
}

}  // namespace fake

extern "C" {

vqmw_t* vqmw_init(const char* app_name) {
  fake::Journal(std::string("init ") + app_name);
  return fake::state.initFails ? nullptr : &fake::handle;
}

zlog_category_t* vqmw_trace_register_category(const char* name) {
  fake::state.categories.push_back(name);
  fake::categoryStore.push_back(zlog_category_s{name});
  return &fake::categoryStore.back();
}

int vqmw_loop_while_timeout(vqmw_t*, bool* running, int) {
  fake::Journal("loop");
  return *running ? fake::state.loop() : 0;
}

void vqmw_gen_fault(int severity, const char* func, const char* file, int line,
                    const char* message) {
  fake::state.faults.push_back({severity, func, file, line, message});
  fake::Journal("fault severity=" + std::to_string(severity) + " func=" + func + " file=" + file +
                " line=" + std::to_string(line) + " message=[" + message + "]");
}

void vqmw_print_backtrace(void) {
  ++fake::state.backtraces;
  fake::Journal("backtrace");
}

void vqmw_finish(vqmw_t** mw) {
  fake::Journal("finish");
  *mw = nullptr;
}

void zlog(zlog_category_t* category, const char* file, size_t filelen, const char* func,
          size_t funclen, long line, int level, const char* format, ...) {
  if (!fake::state.traceEnabled) return;
  char text[8192];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof(text), format, args);
  va_end(args);
  fake::state.logs.push_back(
      {category->name, level, std::string(file, filelen), std::string(func, funclen), line, text});
}

int zlog_level_enabled(zlog_category_t*, int) {
  ++fake::state.levelQueries;
  return fake::state.traceEnabled ? 1 : 0;
}

}  // extern "C"

// The element's CDB reads write an overlong value to the element's log; here it goes nowhere.
spdlog::logger& vqmw::Logger() {
  static spdlog::logger discard("discard");
  return discard;
}
