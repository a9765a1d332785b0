// pbr::PbrClient::Build: the backend named by the element's configuration.
#include "element/pbr/client_factory.h"

#include <cstdio>
#include <cstdlib>
#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

#include "element/classifier/classifier_client.h"
#include "element/kernel/kernel_client.h"
#include "element/middleware/dirs.h"
#include "element/pbr/intf_names.h"
#include "element/pbr/memory_backend.h"

namespace pbr {
namespace {

std::unique_ptr<PbrClient> MakeMemoryBackend(vqmw_t* mw, zlog_category_t* category) {
  return std::make_unique<MemoryBackend>(mw, category, vqmw::StateDir() + "/pbr-manager.json");
}

std::unique_ptr<PbrClient> MakeKernelBackend(vqmw_t* mw, zlog_category_t* category) {
  element::KernelClient::Options options;
  options.interface_names = IntfNameFromLimid;
  return std::make_unique<element::KernelClient>(mw, category, std::move(options));
}

std::unique_ptr<PbrClient> MakeClassifierBackend(vqmw_t* mw, zlog_category_t* category) {
  element::ClassifierClient::Options options;
  options.interface_names = IntfNameFromLimid;
  return std::make_unique<element::ClassifierClient>(mw, category, std::move(options));
}

struct Backend {
  const char* name;
  std::unique_ptr<PbrClient> (*make)(vqmw_t*, zlog_category_t*);
};

// The first is the default.
constexpr Backend kBackends[] = {
    {"memory", MakeMemoryBackend},
    {"kernel", MakeKernelBackend},
    {"classifier", MakeClassifierBackend},
};

}  // namespace

std::vector<std::string> BackendNames() {
  std::vector<std::string> names;
  for (const Backend& backend : kBackends) names.emplace_back(backend.name);
  return names;
}

std::unique_ptr<PbrClient> MakeClient(vqmw_t* mw, zlog_category_t* category, std::string_view name,
                                      std::string* error) {
  if (mw == nullptr) {
    *error = "the PBR manager client needs a middleware handle";
    return nullptr;
  }
  if (name.empty()) name = kBackends[0].name;
  for (const Backend& backend : kBackends) {
    if (name == backend.name) return backend.make(mw, category);
  }
  std::string valid;
  for (const std::string& n : BackendNames()) valid += (valid.empty() ? "" : ", ") + n;
  *error = "PBR_ELEMENT_BACKEND='" + std::string(name) + "' names no backend; valid: " + valid;
  return nullptr;
}

// The daemon cannot work without a client, so a bad choice ends the process with a fault.
PbrClient* PbrClient::Build(vqmw_t* mw, zlog_category_t* category) {
  const char* name = std::getenv("PBR_ELEMENT_BACKEND");
  std::string error;
  std::unique_ptr<PbrClient> client = MakeClient(mw, category, name != nullptr ? name : "", &error);
  if (client) {
#ifdef __SANITIZE_ADDRESS__
    // The daemon keeps its client for the life of the process and never destroys it.
    __lsan_ignore_object(client.get());
#endif
    return client.release();
  }

  // The fault goes to the element's log; say it on stderr too when that log is a file.
  const char* log = std::getenv("PBR_ELEMENT_LOG");
  if (log != nullptr && *log != '\0' && std::string_view(log) != "stderr")
    std::fprintf(stderr, "pbr-element: %s\n", error.c_str());
  vqmw_gen_fault(1, __func__, __FILE_NAME__, __LINE__, error.c_str());
  std::exit(1);
}

}  // namespace pbr
