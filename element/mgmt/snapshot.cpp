#include "element/mgmt/snapshot.h"

#include "element/mgmt/wire.h"

namespace pbr::mgmt {
namespace {

using wire::LengthDelimitedSize;
using wire::PutLength;
using wire::PutScalar;
using wire::PutString;
using wire::ScalarSize;
using wire::StringSize;
using wire::ValueView;

// Field keys (see wire.h) of mgmt.proto's messages.
constexpr uint8_t kNodeName = 1 << 3 | 2;            // Node.name
constexpr uint8_t kNodeValue = 2 << 3 | 2;           // Node.value
constexpr uint8_t kNodeChild = 3 << 3 | 2;           // Node.child
constexpr uint8_t kReplySeq = 1 << 3;                // AttachReply.seq
constexpr uint8_t kReplyRoot = 2 << 3 | 2;           // AttachReply.root
constexpr uint8_t kMessageAttachReply = 2 << 3 | 2;  // ServerMessage.attach_reply

constexpr std::string_view kRootName = "/";

bool IsTerm(const lyd_node* node) {
  return node->schema->nodetype & (LYS_LEAF | LYS_LEAFLIST);
}

}  // namespace

template <typename Fn>
void SnapshotWriter::ForEach(const lyd_node* first, Fn&& fn) const {
  for (const lyd_node* child = first; child;) {
    if (child->schema->nodetype != LYS_LIST) {
      fn(child);
      child = child->next;
      continue;
    }
    const lysc_node* schema = child->schema;
    if (auto indexed = index_.find(schema); indexed != index_.end()) {
      for (const auto& [key, entry] : indexed->second) fn(entry);
      while (child && child->schema == schema) child = child->next;
      continue;
    }
    std::map<EntryKey, const lyd_node*> sorted;
    for (; child && child->schema == schema; child = child->next) {
      sorted.emplace(EntryKey::Of(child), child);
    }
    for (const auto& [key, entry] : sorted) fn(entry);
  }
}

size_t SnapshotWriter::MeasureChildren(const lyd_node* first) {
  size_t size = 0;
  ForEach(first, [&](const lyd_node* child) { size += LengthDelimitedSize(Measure(child)); });
  return size;
}

size_t SnapshotWriter::Measure(const lyd_node* node) {
  const size_t slot = sizes_.size();
  sizes_.push_back(0);
  size_t size = StringSize(node->schema->name);
  if (IsTerm(node)) {
    size += LengthDelimitedSize(ValueView(node).Size());
  } else {
    size += MeasureChildren(lyd_child(node));
  }
  sizes_[slot] = static_cast<uint32_t>(size);
  return size;
}

char* SnapshotWriter::WriteChildren(const lyd_node* first, char* out) {
  ForEach(first, [&](const lyd_node* child) {
    out = PutLength(kNodeChild, sizes_[next_++], out);
    out = PutString(kNodeName, child->schema->name, out);
    if (IsTerm(child)) {
      const ValueView value(child);
      out = value.Put(PutLength(kNodeValue, value.Size(), out));
    } else {
      out = WriteChildren(lyd_child(child), out);
    }
  });
  return out;
}

std::string SnapshotWriter::AttachMessage(uint64_t seq, size_t headroom) {
  sizes_.clear();
  next_ = 0;
  const size_t root = StringSize(kRootName) + MeasureChildren(first_);
  const size_t reply = ScalarSize(seq) + LengthDelimitedSize(root);
  std::string message(headroom + LengthDelimitedSize(reply), '\0');
  char* out = PutLength(kMessageAttachReply, reply, message.data() + headroom);
  out = PutScalar(kReplySeq, seq, out);
  out = PutLength(kReplyRoot, root, out);
  out = PutString(kNodeName, kRootName, out);
  WriteChildren(first_, out);
  return message;
}

}  // namespace pbr::mgmt
