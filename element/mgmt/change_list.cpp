#include "element/mgmt/change_list.h"

#include <optional>

#include "element/mgmt/schema_info.h"
#include "element/mgmt/wire.h"

namespace pbr::mgmt {
namespace {

using wire::LengthDelimitedSize;
using wire::PutLength;
using wire::PutScalar;
using wire::ScalarSize;
using wire::ValueView;

// Field keys (see wire.h) of mgmt.proto's messages.
constexpr uint8_t kElementTag = 1 << 3;              // KeypathElement.tag
constexpr uint8_t kElementNs = 2 << 3;               // KeypathElement.ns
constexpr uint8_t kElementKey = 3 << 3 | 2;          // KeypathElement.key
constexpr uint8_t kChangeKeypath = 1 << 3 | 2;       // Change.keypath
constexpr uint8_t kChangeOp = 2 << 3;                // Change.op
constexpr uint8_t kChangeOldValue = 3 << 3 | 2;      // Change.old_value
constexpr uint8_t kChangeNewValue = 4 << 3 | 2;      // Change.new_value
constexpr uint8_t kChangeDescendants = 5 << 3;       // Change.descendants
constexpr uint8_t kChangeEnclosing = 6 << 3;         // Change.enclosing
constexpr uint8_t kSubscriptionIndex = 1 << 3;       // SubscriptionChanges.subscription
constexpr uint8_t kSubscriptionChange = 2 << 3 | 2;  // SubscriptionChanges.change
constexpr uint8_t kCommitSeq = 1 << 3;               // Commit.seq
constexpr uint8_t kCommitSubscription = 2 << 3 | 2;  // Commit.subscription
constexpr uint8_t kMessageCommit = 3 << 3 | 2;       // ServerMessage.commit

}  // namespace

size_t ChangeList::Add(confd_iter_op op, const lyd_node* oldValue, const lyd_node* newValue,
                       uint32_t enclosing, const Step* steps, size_t stepCount) {
  changes_.push_back({op, enclosing, 0, static_cast<uint32_t>(steps_.size()),
                      static_cast<uint32_t>(stepCount), oldValue, newValue});
  steps_.insert(steps_.end(), steps, steps + stepCount);
  return changes_.size() - 1;
}

bool ChangeList::Under(size_t index, const std::vector<uint32_t>& tags) const {
  const Entry& change = changes_[index];
  size_t matched = 0;
  for (uint32_t s = change.firstStep; s < change.firstStep + change.stepCount; ++s) {
    if (matched == tags.size()) return true;
    if (steps_[s].entry) continue;
    if (SchemaInfo::Of(steps_[s].schema).tag != tags[matched]) return false;
    ++matched;
  }
  return matched == tags.size();
}

// What encoding one change needs after measuring it: its values, looked up once.
struct ChangeList::Scratch {
  std::vector<ValueView> values;  // of the keypath's key elements, in order
  std::vector<size_t> elementSizes;
  std::optional<ValueView> oldValue, newValue;
};

size_t ChangeList::Measure(const Entry& change, Scratch* scratch) const {
  scratch->values.clear();
  scratch->elementSizes.clear();
  size_t size = 0;
  for (uint32_t s = change.firstStep; s < change.firstStep + change.stepCount; ++s) {
    const Step& step = steps_[s];
    size_t element = 0;
    if (!step.entry) {
      const NodeInfo& info = SchemaInfo::Of(step.schema);
      element = ScalarSize(info.tag) + ScalarSize(info.ns);
    } else if (step.entry->schema->nodetype == LYS_LEAFLIST) {
      element = LengthDelimitedSize(scratch->values.emplace_back(step.entry).Size());
    } else {
      for (const lyd_node* key = lyd_child(step.entry); key && lysc_is_key(key->schema);
           key = key->next) {
        element += LengthDelimitedSize(scratch->values.emplace_back(key).Size());
      }
    }
    scratch->elementSizes.push_back(element);
    size += LengthDelimitedSize(element);
  }
  size += ScalarSize(change.op);
  scratch->oldValue.reset();
  scratch->newValue.reset();
  if (change.oldValue) {
    size += LengthDelimitedSize(scratch->oldValue.emplace(change.oldValue).Size());
  }
  if (change.newValue) {
    size += LengthDelimitedSize(scratch->newValue.emplace(change.newValue).Size());
  }
  return size + ScalarSize(change.descendants) + ScalarSize(change.enclosing);
}

char* ChangeList::Write(const Entry& change, size_t size, const Scratch& scratch, char* out) const {
  out = PutLength(kSubscriptionChange, size, out);
  const ValueView* value = scratch.values.data();
  for (uint32_t s = 0; s < change.stepCount; ++s) {
    const Step& step = steps_[change.firstStep + s];
    out = PutLength(kChangeKeypath, scratch.elementSizes[s], out);
    if (!step.entry) {
      const NodeInfo& info = SchemaInfo::Of(step.schema);
      out = PutScalar(kElementTag, info.tag, out);
      out = PutScalar(kElementNs, info.ns, out);
      continue;
    }
    // The element's values were measured in this order.
    for (size_t left = scratch.elementSizes[s]; left > 0; ++value) {
      const size_t length = value->Size();
      out = value->Put(PutLength(kElementKey, length, out));
      left -= LengthDelimitedSize(length);
    }
  }
  out = PutScalar(kChangeOp, change.op, out);
  if (scratch.oldValue) {
    out = scratch.oldValue->Put(PutLength(kChangeOldValue, scratch.oldValue->Size(), out));
  }
  if (scratch.newValue) {
    out = scratch.newValue->Put(PutLength(kChangeNewValue, scratch.newValue->Size(), out));
  }
  out = PutScalar(kChangeDescendants, change.descendants, out);
  return PutScalar(kChangeEnclosing, change.enclosing, out);
}

size_t ChangeList::EncodedSize(size_t from, size_t to, Scratch* scratch) const {
  size_t size = 0;
  for (size_t c = from; c < to; ++c) size += LengthDelimitedSize(Measure(changes_[c], scratch));
  return size;
}

char* ChangeList::Encode(size_t from, size_t to, Scratch* scratch, char* out) const {
  for (size_t c = from; c < to; ++c) {
    const size_t size = Measure(changes_[c], scratch);
    out = Write(changes_[c], size, *scratch, out);
  }
  return out;
}

void ChangeList::Encode(size_t from, size_t to, std::string* out) const {
  Scratch scratch;
  const size_t at = out->size();
  out->resize(at + EncodedSize(from, to, &scratch));
  Encode(from, to, &scratch, out->data() + at);
}

std::string ChangeList::CommitMessage(uint64_t seq, const std::vector<Delivery>& deliveries,
                                      size_t headroom) const {
  // Measured first, so that the message is written once into a buffer of its size.
  Scratch scratch;
  std::vector<size_t> deliverySizes;
  size_t commitSize = ScalarSize(seq);
  for (const Delivery& delivery : deliveries) {
    size_t size = ScalarSize(delivery.subscription);
    for (auto [from, to] : delivery.ranges) size += EncodedSize(from, to, &scratch);
    deliverySizes.push_back(size);
    commitSize += LengthDelimitedSize(size);
  }
  std::string message(headroom + LengthDelimitedSize(commitSize), '\0');
  char* out = PutLength(kMessageCommit, commitSize, message.data() + headroom);
  out = PutScalar(kCommitSeq, seq, out);
  for (size_t d = 0; d < deliveries.size(); ++d) {
    out = PutLength(kCommitSubscription, deliverySizes[d], out);
    out = PutScalar(kSubscriptionIndex, deliveries[d].subscription, out);
    for (auto [from, to] : deliveries[d].ranges) out = Encode(from, to, &scratch, out);
  }
  return message;
}

}  // namespace pbr::mgmt
