// Logical interface identifiers: kernel ifindexes for existing interfaces, registry
// identifiers for names that do not exist (yet).
#include <net/if.h>

#include <cassert>
#include <string>
#include <unordered_map>
#include <vector>

#include "element/pbr/intf_names.h"

namespace pbr {
namespace {

// Names without an interface, in the order they were first asked for; the identifier of
// names[i] is kLimidRegistryBit | (i + 1). Lives as long as the process, like its identifiers.
struct Registry {
  std::unordered_map<std::string, uint32_t> ids;
  std::vector<std::string> names;
};

Registry& Names() {
  static Registry* registry = new Registry;
  return *registry;
}

uint32_t RegistryId(const std::string& name) {
  Registry& registry = Names();
  auto [it, added] = registry.ids.try_emplace(name, 0);
  if (added) {
    registry.names.push_back(name);
    assert(registry.names.size() < kLimidRegistryBit);
    it->second = kLimidRegistryBit | static_cast<uint32_t>(registry.names.size());
  }
  return it->second;
}

}  // namespace

std::optional<std::string> IntfNameFromLimid(limid_t id) {
  if (id.value & kLimidRegistryBit) {
    uint32_t index = id.value & ~kLimidRegistryBit;
    const auto& names = Names().names;
    if (index == 0 || index > names.size()) return std::nullopt;
    return names[index - 1];
  }
  char name[IF_NAMESIZE];
  if (id.value == 0 || if_indextoname(id.value, name) == nullptr) return std::nullopt;
  return std::string(name);
}

}  // namespace pbr

extern "C" int limid_from_intfname(limid_t* id, const char* name) {
  if (id == nullptr) return -1;
  if (name == nullptr) {
    id->value = 0;
    return -1;
  }
  unsigned index = if_nametoindex(name);
  if (index != 0) {
    id->value = index;
    return 0;
  }
  id->value = pbr::RegistryId(name);
  return 1;
}
