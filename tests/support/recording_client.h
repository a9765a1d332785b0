// A PBR manager client that records what the daemon sends, with copies of the entries.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/pbr_client.h"

namespace fake {

struct ClientCall {
  enum Kind { kSet, kDelete } kind;
  uint16_t id;
  pbr::Entry entry;  // kSet only: the entry as it was at the call
};

class RecordingClient : public pbr::PbrClient {
 public:
  pbr::Error SetEntry(const uint16_t& id, const pbr::Entry& entry) override;
  pbr::Error DeleteEntry(const uint16_t& id) override;
  pbr::Error RegisterStatusListener(pbr::PbrStatusItf* listener) override;

  // "set 3", "delete 5": the calls in order, for compact assertions.
  std::vector<std::string> Summary() const;

  std::vector<ClientCall> calls;
  pbr::PbrStatusItf* listener = nullptr;
};

// The client the last pbr::PbrClient::Build made (null before), and how often Build ran.
RecordingClient* BuiltClient();
int BuildCalls();

}  // namespace fake
