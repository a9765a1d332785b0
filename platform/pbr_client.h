// PBR manager client contract. The client is made once by Build and never destroyed. Status
// reports reach the registered listener on the middleware loop's thread, never from inside
// SetEntry or DeleteEntry.
#pragma once

#include <cstdint>

#include "platform/pbr_model.h"
#include "platform/vqmw.h"

namespace pbr {

class PbrStatusItf {
 public:
  // A status report for one rule: 0 not programmed, 1 programmed, 2 failed.
  virtual void StatusUpdateCb(const uint16_t& id, uint32_t status) = 0;

 protected:
  ~PbrStatusItf() = default;
};

class PbrClient {
 public:
  // A ready client bound to the middleware loop of `mw`.
  static PbrClient* Build(vqmw_t* mw, zlog_category_t* category);

  virtual ~PbrClient() = default;
  // Creates the rule `id` or replaces it; the client copies what it needs.
  virtual Error SetEntry(const uint16_t& id, const Entry& entry) = 0;
  virtual Error DeleteEntry(const uint16_t& id) = 0;
  virtual Error RegisterStatusListener(PbrStatusItf* listener) = 0;
};

}  // namespace pbr
