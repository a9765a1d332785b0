// Logical interface identifiers: interned interface names.
#include <cassert>
#include <string>
#include <unordered_map>
#include <vector>

#include "element/pbr/intf_names.h"

namespace pbr {
namespace {

// Names in the order they were first asked for; the identifier of names[i] is
// kLimidRegistryBit | (i + 1). Lives as long as the process, like its identifiers.
struct Registry {
  std::unordered_map<std::string, uint32_t> ids;
  std::vector<std::string> names;
};

Registry& Names() {
  static Registry* registry = new Registry;
  return *registry;
}

}  // namespace

std::optional<std::string> IntfNameFromLimid(limid_t id) {
  if (!(id.value & kLimidRegistryBit)) return std::nullopt;
  const uint32_t index = id.value & ~kLimidRegistryBit;
  const auto& names = Names().names;
  if (index == 0 || index > names.size()) return std::nullopt;
  return names[index - 1];
}

}  // namespace pbr

extern "C" int limid_from_intfname(limid_t* id, const char* name) {
  if (id == nullptr) return -1;
  if (name == nullptr) {
    id->value = 0;
    return -1;
  }
  pbr::Registry& registry = pbr::Names();
  auto [it, added] = registry.ids.try_emplace(name, 0);
  if (added) {
    registry.names.push_back(name);
    assert(registry.names.size() < pbr::kLimidRegistryBit);
    it->second = pbr::kLimidRegistryBit | static_cast<uint32_t>(registry.names.size());
  }
  id->value = it->second;
  return 0;
}
