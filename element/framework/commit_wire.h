// A Commit read from the wire one change at a time. A bulk commit of 65,536 rules is nearly a
// million changes: parsed whole into messages it took about 200 MB at once, while the handlers
// only ever look at one change and the entries that enclose it.
#pragma once

#include <cstdint>
#include <string_view>
#include <utility>
#include <vector>

#include "element/framework/wire_reader.h"
#include "element/mgmt/mgmt.pb.h"

namespace vqconfd::detail {

// When `serverMessage` (a serialized pbr.mgmt.ServerMessage) is a Commit: true, with its seq
// and each SubscriptionChanges as its subscription index and serialized bytes, in order.
bool PeekCommit(std::string_view serverMessage, uint64_t* seq,
                std::vector<std::pair<uint32_t, std::string_view>>* subscriptions);

// Walks the changes of one serialized SubscriptionChanges, each parsed into one reused Change.
class ChangeCursor {
 public:
  explicit ChangeCursor(std::string_view subscriptionChanges);
  // The next change, valid until the next call; null at the end or when the bytes are malformed
  // (then ok() is false).
  const pbr::mgmt::Change* Next();
  // Passes over the next `count` changes without parsing them.
  void Skip(uint32_t count);
  bool ok() const { return ok_; }

 private:
  bool NextBytes(std::string_view* change);

  WireReader reader_;
  pbr::mgmt::Change change_;
  bool ok_ = true;
};

}  // namespace vqconfd::detail
