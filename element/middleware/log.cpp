// zlog categories and records on spdlog.
#include "element/middleware/log.h"

#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "element/middleware/trace_config.h"
#include "platform/vqmw.h"
#include "platform/zlog.h"

struct zlog_category_s {
  std::string name;
  int min_level;  // TraceConfig::kOff when disabled; read on every zlog call
};

namespace vqmw {
namespace {

struct LogState {
  TraceConfig trace;
  // Categories live as long as the process: callers keep the pointers and never release them.
  std::map<std::string, std::unique_ptr<zlog_category_s>, std::less<>> categories;
  std::shared_ptr<spdlog::logger> logger;
  bool trace_loaded = false;
};

LogState& State() {
  static LogState* state = new LogState;  // never destroyed: records may come from exit handlers
  return *state;
}

std::shared_ptr<spdlog::logger> MakeLogger(std::string* error) {
  const char* dest = std::getenv("PBR_ELEMENT_LOG");
  spdlog::sink_ptr sink;
  if (dest != nullptr && *dest != '\0' && std::string_view(dest) != "stderr") {
    try {
      sink = std::make_shared<spdlog::sinks::basic_file_sink_st>(dest, /*truncate=*/false);
    } catch (const spdlog::spdlog_ex& e) {
      *error = std::string("cannot open PBR_ELEMENT_LOG, logging to stderr: ") + e.what();
    }
  }
  if (!sink) sink = std::make_shared<spdlog::sinks::stderr_sink_st>();
  auto logger = std::make_shared<spdlog::logger>("pbr-element", std::move(sink));
  logger->set_pattern("%Y-%m-%dT%H:%M:%S.%e %l %v");
  logger->set_level(spdlog::level::trace);
  // Records are rare unless tracing is on; flushing each keeps the file whole if the process dies.
  logger->flush_on(spdlog::level::trace);
  return logger;
}

void LoadTrace(LogState& state) {
  std::vector<std::string> errors;
  const char* text = std::getenv("PBR_ELEMENT_TRACE");
  state.trace = TraceConfig::Parse(text != nullptr ? text : "", &errors);
  state.trace_loaded = true;
  for (auto& [name, category] : state.categories) category->min_level = state.trace.MinLevel(name);
  for (const std::string& e : errors) Logger().warn("PBR_ELEMENT_TRACE: {}", e);
}

// zlog's levels: 20 debug, 40 info, 60 notice, 80 warn, 100 error, 120 fatal; below 20 is trace.
spdlog::level::level_enum ToSpdlog(int level) {
  if (level < 20) return spdlog::level::trace;
  if (level < 40) return spdlog::level::debug;
  if (level < 80) return spdlog::level::info;
  if (level < 100) return spdlog::level::warn;
  if (level < 120) return spdlog::level::err;
  return spdlog::level::critical;
}

}  // namespace

spdlog::logger& Logger() {
  LogState& state = State();
  if (!state.logger) {
    std::string error;
    state.logger = MakeLogger(&error);
    if (!error.empty()) state.logger->error("{}", error);
  }
  return *state.logger;
}

void ReopenLog() {
  LogState& state = State();
  std::string error;
  state.logger = MakeLogger(&error);
  if (!error.empty()) state.logger->error("{}", error);
}

bool ChangeTrace(std::string_view text, std::string* error) {
  LogState& state = State();
  if (!state.trace_loaded) LoadTrace(state);
  std::vector<std::string> errors;
  const TraceConfig change = TraceConfig::Parse(text, &errors);
  if (!errors.empty()) {
    *error = errors.front();
    return false;
  }
  state.trace.Apply(change);
  for (auto& [name, category] : state.categories) category->min_level = state.trace.MinLevel(name);
  Logger().info("trace levels changed by '{}': {}", text, TraceText());
  return true;
}

std::string TraceText() {
  LogState& state = State();
  if (!state.trace_loaded) LoadTrace(state);
  std::vector<std::string> names;
  for (const auto& [name, category] : state.categories) names.push_back(name);
  return state.trace.Text(names);
}

std::string_view BaseName(std::string_view file) {
  const size_t slash = file.rfind('/');
  return slash == std::string_view::npos ? file : file.substr(slash + 1);
}

void ReloadLogConfig() {
  LogState& state = State();
  std::string error;
  state.logger = MakeLogger(&error);
  if (!error.empty()) state.logger->error("{}", error);
  LoadTrace(state);
}

}  // namespace vqmw

extern "C" {

zlog_category_t* vqmw_trace_register_category(const char* name) {
  auto& state = vqmw::State();
  if (!state.trace_loaded) vqmw::LoadTrace(state);
  std::string_view key = name != nullptr ? name : "";
  auto it = state.categories.find(key);
  if (it == state.categories.end()) {
    auto category = std::make_unique<zlog_category_s>(
        zlog_category_s{std::string(key), state.trace.MinLevel(key)});
    it = state.categories.emplace(std::string(key), std::move(category)).first;
  }
  return it->second.get();
}

int zlog_level_enabled(zlog_category_t* category, int level) {
  return category != nullptr && level >= category->min_level;
}

void zlog(zlog_category_t* category, const char* file, size_t filelen, const char* func,
          size_t funclen, long line, int level, const char* format, ...) {
  if (!zlog_level_enabled(category, level) || format == nullptr) return;

  char small[512];
  std::string large;
  std::string_view message;
  va_list args;
  va_start(args, format);
  va_list again;
  va_copy(again, args);
  int n = std::vsnprintf(small, sizeof small, format, args);
  va_end(args);
  if (n < 0) {
    message = "(unformattable record)";
  } else if (static_cast<size_t>(n) < sizeof small) {
    message = std::string_view(small, n);
  } else {
    large.resize(n + 1);
    std::vsnprintf(large.data(), large.size(), format, again);
    large.resize(n);
    message = large;
  }
  va_end(again);
  // zlog adds the line end itself; callers that end a message with one would get blank lines.
  if (!message.empty() && message.back() == '\n') message.remove_suffix(1);

  std::string_view file_name =
      file != nullptr ? vqmw::BaseName(std::string_view(file, filelen)) : "?";
  std::string_view func_name = func != nullptr ? std::string_view(func, funclen) : "?";
  vqmw::Logger().log(vqmw::ToSpdlog(level), "{}[{}] {}:{} {}: {}", category->name, level, file_name,
                     line, func_name, message);
}

}  // extern "C"
