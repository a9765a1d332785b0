// Fault reports: one JSON record per fault, to the element's log and appended to
// $PBR_ELEMENT_RUNTIME_DIR/faults.log, and symbolised backtraces to both.
#include <cxxabi.h>
#include <execinfo.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "element/middleware/log.h"
#include "element/middleware/loop.h"
#include "element/middleware/registration.h"
#include "platform/vqmw.h"

namespace vqmw {
namespace {

std::string NowUtc() {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  tm t{};
  gmtime_r(&ts.tv_sec, &t);
  char text[40];
  size_t n = strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &t);
  snprintf(text + n, sizeof text - n, ".%03ldZ", ts.tv_nsec / 1000000);
  return text;
}

// One line; invalid UTF-8 in a caller's text is replaced rather than thrown about.
std::string Dump(const nlohmann::ordered_json& record) {
  return record.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

void AppendToFaultLog(const std::string& line) {
  std::string path = RuntimeDir() + "/faults.log";
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) {
    Logger().error("cannot open the fault log {}: {}", path, std::strerror(errno));
    return;
  }
  std::string data = line + "\n";
  // O_APPEND and a single write keep each record whole among other writers.
  ssize_t n;
  do {
    n = write(fd, data.data(), data.size());
  } while (n < 0 && errno == EINTR);
  if (n != static_cast<ssize_t>(data.size()))
    Logger().error("cannot append to the fault log {}: {}", path,
                   n < 0 ? std::strerror(errno) : "short write");
  close(fd);
}

// "binary(mangled+0x1a) [0x...]" with the C++ name demangled where there is one.
std::string Demangle(const char* symbol) {
  std::string text = symbol;
  size_t open = text.find('(');
  size_t plus = text.find('+', open == std::string::npos ? 0 : open);
  if (open == std::string::npos || plus == std::string::npos || plus == open + 1) return text;
  std::string mangled = text.substr(open + 1, plus - open - 1);
  int status = 0;
  char* plain = abi::__cxa_demangle(mangled.c_str(), nullptr, nullptr, &status);
  if (status == 0 && plain != nullptr) text.replace(open + 1, mangled.size(), plain);
  std::free(plain);
  return text;
}

}  // namespace
}  // namespace vqmw

extern "C" {

void vqmw_gen_fault(int severity, const char* func, const char* file, int line,
                    const char* message) {
  try {
    nlohmann::ordered_json record;
    record["time"] = vqmw::NowUtc();
    record["severity"] = severity;
    record["application"] = vqmw::AppName();
    record["pid"] = getpid();
    record["function"] = func != nullptr ? func : "";
    record["file"] = file != nullptr ? vqmw::BaseName(file) : "";
    record["line"] = line;
    record["message"] = message != nullptr ? message : "";
    std::string text = vqmw::Dump(record);
    vqmw::Logger().log(severity >= 1 ? spdlog::level::critical : spdlog::level::err, "fault {}",
                       text);
    vqmw::AppendToFaultLog(text);
  } catch (const std::exception& e) {
    // A fault report is often the process's last word: never let it throw.
    std::fprintf(stderr, "vqmw_gen_fault: cannot record a fault (%s): %s\n", e.what(),
                 message != nullptr ? message : "");
  }
}

void vqmw_print_backtrace(void) {
  try {
    void* frames[64];
    int count = backtrace(frames, 64);
    char** symbols = backtrace_symbols(frames, count);
    std::vector<std::string> lines;
    // Frames are kept from the first, this function: how many the libc (or a sanitizer's
    // interceptor) adds in front varies.
    for (int i = 0; i < count; ++i) {
      if (symbols != nullptr) {
        lines.push_back(vqmw::Demangle(symbols[i]));
      } else {
        char addr[32];
        snprintf(addr, sizeof addr, "[%p]", frames[i]);
        lines.emplace_back(addr);
      }
    }
    std::free(symbols);

    auto& log = vqmw::Logger();
    log.error("backtrace of {} (pid {}):", vqmw::AppName(), getpid());
    for (size_t i = 0; i < lines.size(); ++i) log.error("  #{} {}", i, lines[i]);

    nlohmann::ordered_json record;
    record["time"] = vqmw::NowUtc();
    record["application"] = vqmw::AppName();
    record["pid"] = getpid();
    record["backtrace"] = lines;
    vqmw::AppendToFaultLog(vqmw::Dump(record));
  } catch (const std::exception& e) {
    std::fprintf(stderr, "vqmw_print_backtrace: %s\n", e.what());
  }
}

}  // extern "C"
