// The rule cache: every configured PBR rule by id, with the ids the current commit changed and
// deleted. Used on the middleware loop's thread only; holders keep plain pointers to the one
// cache, which the process entry owns.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "platform/confd_lib.h"
#include "platform/pbr_model.h"
#include "platform/zlog.h"

namespace pbr {

// One cached rule. `id` is 0 until the rule's id leaf is applied; the map key places the record.
struct PbrConfig {
  uint32_t id = 0;
  Entry entry;              // the rule as the PBR manager gets it; its id is the low 16 bits
  std::string description;  // kept here only, never sent
};

class ConfigCache {
 public:
  ConfigCache();
  ~ConfigCache() = default;
  ConfigCache(const ConfigCache&) = delete;
  ConfigCache& operator=(const ConfigCache&) = delete;

  // Finds or creates the record of `id`; the reference stays valid until the rule is erased.
  // GetConfig logs the lookup, FindOrCreate does not.
  PbrConfig& GetConfig(uint32_t id);
  PbrConfig& FindOrCreate(uint32_t id);

  // A change of a whole rule: MOP_DELETED erases it and records the id as deleted (ITER_CONTINUE);
  // a create, modify or value-set records it as changed (ITER_RECURSE).
  confd_iter_ret HandlePbrEntry(uint32_t& id, confd_iter_op op);

  // Field handlers: apply one change of one field, creating the rule when it is not cached.
  confd_iter_ret SetPbrId(uint32_t& id);
  confd_iter_ret SetPbrPrio(uint32_t& id, const confd_value_t& value);
  confd_iter_ret HandlePbrDescription(uint32_t& id, confd_iter_op op, const confd_value_t& value);
  confd_iter_ret HandlePbrActionNextHop(uint32_t& id, confd_iter_op op, confd_value_t& value);
  confd_iter_ret HandlePbrMatchIp(confd_hkeypath_t* kp, confd_iter_op op,
                                  const confd_value_t& value);
  confd_iter_ret SetPbrMatchSrcIp(uint32_t& id, in_addr& address, in_addr& mask);
  confd_iter_ret SetPbrMatchDstIp(uint32_t& id, in_addr& address, in_addr& mask);
  confd_iter_ret HandlePbrMatchInterface(uint32_t& id, confd_iter_op op,
                                         const confd_value_t& value);

  // Open to the configuration handler, which loads, walks and clears them.
  std::map<uint32_t, PbrConfig> configs;
  std::set<uint32_t> changedIds;
  std::set<uint32_t> deletedIds;

 private:
  zlog_category_t* category;
};

}  // namespace pbr
