// The daemon's configuration subscriber: one subscription on /router/pbr. Changes of a commit
// go into the rule cache through PbrGlobalHandler; ApplyCommitConfig sends the changed rules
// whole, then the deleted ids, to the PBR manager. At every attachment the cache is rebuilt from
// CDB and every rule is sent. All calls come from the framework on the middleware loop's thread.
#pragma once

#include <netinet/in.h>

#include <string>
#include <vector>

#include "config/cache.h"
#include "platform/confd_lib.h"
#include "platform/pbr_client.h"
#include "platform/vqconfd.h"
#include "platform/zlog.h"

namespace pbr {

class ConfigHandler : public vqconfd::ConfigHandler {
 public:
  // Neither the category, the client nor the cache is owned.
  ConfigHandler(zlog_category_t* category, PbrClient* client, ConfigCache* cache);
  ~ConfigHandler() override = default;
  ConfigHandler(const ConfigHandler&) = delete;
  ConfigHandler& operator=(const ConfigHandler&) = delete;

  void ReadInitialConfig(int cdbSocket) override;
  void ApplyInitialConfig() override;
  void StartCommit() override;
  void ApplyCommitConfig() override;
  const std::vector<vqconfd::SubscriptionPoint>& GetSubscriptionPoints() const override;

  // The change callback: hands one changed node to the cache operation its deepest tag selects.
  confd_iter_ret PbrGlobalHandler(confd_hkeypath_t* kp, confd_iter_op op, confd_value_t* oldValue,
                                  confd_value_t* newValue);
  // The tag of the deepest element of `keypath` that is an XML tag.
  uint32_t GetXmlTagFromKeypath(confd_hkeypath_t* keypath);

  // Loads the list entry at `position` (from 0) into the cache.
  void GetPbrRuleFromCdb(int cdbSocket, int position);
  // Reads the no-mask or mask form of one match address below `basePath`; false when neither
  // is present. When both are, the mask form wins.
  bool GetIpAddrAndMaskFromCdb(int cdbSocket, int position, const std::string& basePath,
                               in_addr* address, in_addr* mask);

 private:
  std::vector<vqconfd::SubscriptionPoint> points;
  zlog_category_t* category;
  PbrClient* client;
  ConfigCache* cache;
};

}  // namespace pbr
