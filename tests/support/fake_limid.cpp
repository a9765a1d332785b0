#include "tests/support/fake_limid.h"

#include <map>
#include <string>

namespace fake {
namespace {

std::map<std::string, uint32_t>& Registry() {
  static std::map<std::string, uint32_t> registry;
  return registry;
}

}  // namespace

limid_t LimidOf(const char* name) {
  auto [it, added] = Registry().try_emplace(name, 100 + static_cast<uint32_t>(Registry().size()));
  return limid_t{it->second};
}

}  // namespace fake

extern "C" int limid_from_intfname(limid_t* id, const char* name) {
  *id = fake::LimidOf(name);
  return 0;
}
