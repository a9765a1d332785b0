#include "element/framework/commit_wire.h"

#include "element/framework/wire_reader.h"

namespace vqconfd::detail {

bool PeekCommit(std::string_view serverMessage, uint64_t* seq,
                std::vector<std::pair<uint32_t, std::string_view>>* subscriptions) {
  // ServerMessage.commit is field 3; Commit.seq field 1, Commit.subscription field 2;
  // SubscriptionChanges.subscription field 1.
  WireReader message(serverMessage);
  std::string_view commit;
  bool found = false;
  while (!message.done()) {
    uint64_t key = 0;
    if (!message.Varint(&key) || key != WireReader::Key(3, WireReader::kBytes) ||
        !message.Bytes(&commit)) {
      return false;
    }
    found = true;
  }
  if (!found) return false;
  *seq = 0;
  subscriptions->clear();
  WireReader fields(commit);
  while (!fields.done()) {
    uint64_t key = 0;
    std::string_view changes;
    if (!fields.Varint(&key)) return false;
    if (key == WireReader::Key(1, WireReader::kVarint)) {
      if (!fields.Varint(seq)) return false;
    } else if (key == WireReader::Key(2, WireReader::kBytes)) {
      if (!fields.Bytes(&changes)) return false;
      uint64_t subscription = 0;
      WireReader inner(changes);
      while (!inner.done()) {
        uint64_t innerKey = 0;
        if (!inner.Varint(&innerKey)) return false;
        if (innerKey == WireReader::Key(1, WireReader::kVarint)) {
          if (!inner.Varint(&subscription)) return false;
        } else if (!inner.Skip(static_cast<uint32_t>(innerKey & 7))) {
          return false;
        }
      }
      subscriptions->emplace_back(static_cast<uint32_t>(subscription), changes);
    } else if (!fields.Skip(static_cast<uint32_t>(key & 7))) {
      return false;
    }
  }
  return true;
}

ChangeCursor::ChangeCursor(std::string_view subscriptionChanges) : reader_(subscriptionChanges) {}

bool ChangeCursor::NextBytes(std::string_view* change) {
  while (ok_ && !reader_.done()) {
    uint64_t key = 0;
    if (!reader_.Varint(&key)) {
      ok_ = false;
    } else if (key == WireReader::Key(2, WireReader::kBytes)) {
      ok_ = reader_.Bytes(change);
      return ok_;
    } else {
      ok_ = reader_.Skip(static_cast<uint32_t>(key & 7));
    }
  }
  return false;
}

const pbr::mgmt::Change* ChangeCursor::Next() {
  std::string_view bytes;
  if (!NextBytes(&bytes)) return nullptr;
  if (!change_.ParseFromArray(bytes.data(), static_cast<int>(bytes.size()))) {
    ok_ = false;
    return nullptr;
  }
  return &change_;
}

void ChangeCursor::Skip(uint32_t count) {
  std::string_view bytes;
  for (uint32_t i = 0; i < count && NextBytes(&bytes); ++i) {
  }
}

}  // namespace vqconfd::detail
