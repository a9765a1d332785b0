// Where the element keeps its runtime files and its state.
#include "element/middleware/dirs.h"

#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "element/middleware/log.h"
#include "element/middleware/loop.h"

namespace vqmw {
namespace {

// `cache` holds the last answer so that the returned reference stays valid; the directory is
// created whenever the configured path changes.
const std::string& DirFromEnv(const char* variable, const char* fallback, std::string& cache) {
  const char* value = std::getenv(variable);
  std::string wanted = value != nullptr && *value != '\0' ? value : fallback;
  if (wanted != cache) {
    cache = std::move(wanted);
    std::error_code ec;
    std::filesystem::create_directories(cache, ec);
    if (ec) Logger().error("cannot create {} ({}): {}", cache, variable, ec.message());
  }
  return cache;
}

}  // namespace

const std::string& RuntimeDir() {
  static std::string dir;
  return DirFromEnv("PBR_ELEMENT_RUNTIME_DIR", "/run/pbr-element", dir);
}

const std::string& StateDir() {
  static std::string dir;
  return DirFromEnv("PBR_ELEMENT_STATE_DIR", "/var/lib/pbr-element", dir);
}

}  // namespace vqmw
