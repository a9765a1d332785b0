// The running configuration as the AttachReply a daemon gets when it attaches: a Node tree
// with list entries in key order, encoded straight into wire bytes. 65,536 rules are about
// 800,000 nodes: measured in a first walk and written in a second, without a message object
// per node. Used on the server's one thread.
#pragma once

#include <libyang/libyang.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "element/mgmt/entry_key.h"

namespace pbr::mgmt {

class SnapshotWriter {
 public:
  // Entries of lists below the top-level containers, in key order, by list.
  using Index = std::map<const lysc_node*, std::map<EntryKey, lyd_node*>>;

  // `first`: the first top-level node of the running configuration (null: empty). Both it and
  // `index` must outlive the writer.
  SnapshotWriter(const lyd_node* first, const Index& index) : first_(first), index_(index) {}

  // The ServerMessage (encoded) of an AttachReply with sequence number `seq`, after
  // `headroom` bytes left for the caller.
  std::string AttachMessage(uint64_t seq, size_t headroom = 0);

 private:
  // Calls fn on the nodes from `first` on in snapshot order: list entries by key.
  template <typename Fn>
  void ForEach(const lyd_node* first, Fn&& fn) const;
  // The size of the children's Node fields; each node's own size is kept for Write.
  size_t MeasureChildren(const lyd_node* first);
  size_t Measure(const lyd_node* node);
  char* WriteChildren(const lyd_node* first, char* out);

  const lyd_node* first_;
  const Index& index_;
  std::vector<uint32_t> sizes_;  // of each node's body, in the order of the walk
  size_t next_ = 0;
};

}  // namespace pbr::mgmt
