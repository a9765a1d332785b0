// The changes of one commit as the diff reports them, and their encoding for the subscribers.
// A bulk commit has hundreds of thousands of changes: each is kept as references into the old
// and new trees, and written straight into protobuf wire bytes (each a `Change` of
// SubscriptionChanges.change) instead of being built as messages first. Valid while both trees
// live; owned and used by the server's one thread.
#pragma once

#include <libyang/libyang.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "platform/confd_lib.h"

namespace pbr::mgmt {

class ChangeList {
 public:
  // One keypath element: a schema node's tag, or (entry set) the keys of a list entry or the
  // value of a leaf-list entry.
  struct Step {
    const lysc_node* schema;
    const lyd_node* entry;
  };

  // Adds a change whose keypath below its enclosing change (`enclosing` places before it, 0:
  // none) is `steps`; returns its index.
  size_t Add(confd_iter_op op, const lyd_node* oldValue, const lyd_node* newValue,
             uint32_t enclosing, const Step* steps, size_t stepCount);
  void SetDescendants(size_t index, uint32_t descendants) {
    changes_[index].descendants = descendants;
  }

  size_t size() const { return changes_.size(); }
  uint32_t descendants(size_t index) const { return changes_[index].descendants; }

  // Whether change `index`, one without an enclosing change, lies under the schema path whose
  // tags (root-most first, choices and cases left out) are `tags`.
  bool Under(size_t index, const std::vector<uint32_t>& tags) const;

  // Appends changes [from, to) to `out` as fields `change` of a SubscriptionChanges message.
  void Encode(size_t from, size_t to, std::string* out) const;

  // What one subscriber hears of a commit: per subscription (its index in the Attach), the
  // ranges [from, to) of changes that concern it.
  struct Delivery {
    uint32_t subscription;
    std::vector<std::pair<size_t, size_t>> ranges;
  };
  // The ServerMessage (encoded) of a Commit with sequence number `seq` and these deliveries,
  // after `headroom` bytes left for the caller.
  std::string CommitMessage(uint64_t seq, const std::vector<Delivery>& deliveries,
                            size_t headroom = 0) const;

 private:
  struct Entry {
    confd_iter_op op;
    uint32_t enclosing;
    uint32_t descendants;
    uint32_t firstStep;
    uint32_t stepCount;
    const lyd_node* oldValue;
    const lyd_node* newValue;
  };
  struct Scratch;
  // The encoded size of a change's body; leaves in `scratch` what Write needs.
  size_t Measure(const Entry& change, Scratch* scratch) const;
  // Write the measured change (its field key and length, then its body) at `out`; return the
  // end of what they wrote.
  char* Write(const Entry& change, size_t size, const Scratch& scratch, char* out) const;
  char* Encode(size_t from, size_t to, Scratch* scratch, char* out) const;
  size_t EncodedSize(size_t from, size_t to, Scratch* scratch) const;

  std::vector<Entry> changes_;
  std::vector<Step> steps_;
};

}  // namespace pbr::mgmt
