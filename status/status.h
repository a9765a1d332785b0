// Operational status: the hardware status the PBR manager reports per rule, and the "show_pbr"
// callpoint that answers get-object requests from the rule cache and that table. Status reports
// and requests both arrive on the middleware loop's thread.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "config/cache.h"
#include "platform/confd_lib.h"
#include "platform/pbr_client.h"
#include "platform/vqconfd.h"
#include "platform/zlog.h"

namespace pbr {

class Status;

class StatusCallpoint : public vqconfd::DataHandler::Callpoint {
 public:
  // Neither the category, the cache nor the owning status handler is owned.
  StatusCallpoint(const std::string& name, zlog_category_t* category, ConfigCache* cache,
                  Status* status);
  ~StatusCallpoint() override = default;
  StatusCallpoint(const StatusCallpoint&) = delete;
  StatusCallpoint& operator=(const StatusCallpoint&) = delete;

  // Answers one entry of the operational list; the key is keypath->v[0][0]. Always CONFD_OK.
  int GetObjectCallback(confd_trans_ctx* tctx, confd_hkeypath_t* keypath) override;
  const char* GetCallpointName() override;

  // Kinds of address GetIpStringFromEntry writes.
  enum IpKind : int { kSourceIp = 0, kDestinationIp = 1, kNextHopIp = 2 };
  // Writes the rule's address of `kind` as text into `out`; false, `out` untouched, when the rule
  // has no such match or action.
  bool GetIpStringFromEntry(int kind, const PbrConfig& rule, std::string& out);

 private:
  std::string name;
  zlog_category_t* category;
  ConfigCache* cache;
  Status* status;
};

class Status : public vqconfd::DataHandler, public PbrStatusItf {
 public:
  Status(zlog_category_s* category, ConfigCache* cache);
  ~Status() override;
  Status(const Status&) = delete;
  Status& operator=(const Status&) = delete;

  std::vector<vqconfd::DataHandler::Callpoint*>& GetCallpoints() override;
  std::vector<std::string> GetCallpointNames();

  void StatusUpdateCb(const uint16_t& id, uint32_t code) override;
  void SetHwStatus(uint16_t id, uint32_t code);
  // The code last reported for `id`; 0, recorded, when none was.
  uint32_t GetHwStatus(uint16_t id);

 private:
  zlog_category_t* category;
  std::vector<vqconfd::DataHandler::Callpoint*> callpoints;
  std::map<uint16_t, uint32_t> hwStatus;
};

}  // namespace pbr
