#include "element/framework/cdb_snapshot.h"

#include <algorithm>

#include "element/framework/wire_reader.h"
#include "element/mgmt/keypath_text.h"

namespace vqconfd::detail {
namespace {

// Nodes with few children are searched directly; longer child lists get an index.
constexpr uint32_t kIndexFrom = 16;
// Deeper than any configuration: a bound on the recursion over a malformed message.
constexpr int kMaxDepth = 64;

std::string KeyText(std::string_view name, const std::vector<std::string>& keys) {
  std::string text(name);
  text += '\0';
  for (const std::string& k : keys) (text += k) += '\0';
  return text;
}

}  // namespace

CdbSnapshot::CdbSnapshot(std::string_view wire) {
  Init(wire);
}

CdbSnapshot::CdbSnapshot(const pbr::mgmt::Node* root) : owned_(root->SerializeAsString()) {
  Init(owned_);
}

void CdbSnapshot::Init(std::string_view wire) {
  wire_ = wire;
  nodes_.emplace_back();  // the root's place, before its children
  Node root;
  valid_ = Parse(wire_, &root, 0);
  if (valid_) {
    nodes_[0] = root;
  } else {
    nodes_.assign(1, Node{});
  }
}

bool CdbSnapshot::Parse(std::string_view message, Node* out, int depth) {
  if (depth > kMaxDepth) return false;
  std::vector<std::string_view> children;
  WireReader reader(message);
  while (!reader.done()) {
    uint64_t key = 0;
    if (!reader.Varint(&key)) return false;
    const auto field = static_cast<uint32_t>(key >> 3);
    const auto wireType = static_cast<uint32_t>(key & 7);
    std::string_view bytes;
    if (wireType != 2 || field < 1 || field > 3) {
      if (!reader.Skip(wireType)) return false;
      continue;
    }
    if (!reader.Bytes(&bytes)) return false;
    if (field == 1) {
      out->nameAt = static_cast<uint32_t>(bytes.data() - wire_.data());
      out->nameSize = static_cast<uint32_t>(bytes.size());
    } else if (field == 3) {
      children.push_back(bytes);
    } else {
      out->hasValue = true;
      WireReader value(bytes);
      while (!value.done()) {
        uint64_t valueKey = 0, type = 0;
        std::string_view text;
        if (!value.Varint(&valueKey)) return false;
        if (valueKey == (1 << 3 | 0)) {
          if (!value.Varint(&type)) return false;
          out->type = static_cast<uint32_t>(type);
        } else if (valueKey == (2 << 3 | 2)) {
          if (!value.Bytes(&text)) return false;
          out->textAt = static_cast<uint32_t>(text.data() - wire_.data());
          out->textSize = static_cast<uint32_t>(text.size());
        } else if (!value.Skip(static_cast<uint32_t>(valueKey & 7))) {
          return false;
        }
      }
    }
  }
  // Children are stored together, after the nodes already stored; theirs come after them.
  out->firstChild = static_cast<uint32_t>(nodes_.size());
  out->childCount = static_cast<uint32_t>(children.size());
  nodes_.resize(nodes_.size() + children.size());
  for (size_t i = 0; i < children.size(); ++i) {
    Node child;
    if (!Parse(children[i], &child, depth + 1)) return false;
    nodes_[out->firstChild + i] = child;
  }
  return true;
}

bool PeekAttachReply(std::string_view serverMessage, uint64_t* seq, std::string_view* root) {
  // ServerMessage.attach_reply is field 2; AttachReply.seq field 1 and AttachReply.root field 2.
  WireReader message(serverMessage);
  std::string_view reply;
  bool found = false;
  while (!message.done()) {
    uint64_t key = 0;
    if (!message.Varint(&key) || key != (2 << 3 | 2) || !message.Bytes(&reply)) return false;
    found = true;
  }
  if (!found) return false;
  *seq = 0;
  *root = {};
  WireReader fields(reply);
  while (!fields.done()) {
    uint64_t key = 0;
    if (!fields.Varint(&key)) return false;
    if (key == (1 << 3 | 0)) {
      if (!fields.Varint(seq)) return false;
    } else if (key == (2 << 3 | 2)) {
      if (!fields.Bytes(root)) return false;
    } else if (!fields.Skip(static_cast<uint32_t>(key & 7))) {
      return false;
    }
  }
  return true;
}

const CdbSnapshot::Children& CdbSnapshot::IndexOf(const Node* node) const {
  auto [it, added] = index_.try_emplace(node);
  if (added) {
    for (uint32_t i = 0; i < node->childCount; ++i) {
      Run& run = it->second.runs[Name(Child(*node, i))];
      if (run.count == 0) run.first = static_cast<int>(i);
      ++run.count;
    }
  }
  return it->second;
}

bool CdbSnapshot::KeysMatch(const Node& entry, const std::vector<std::string>& keys) const {
  if (entry.childCount < keys.size()) return false;
  for (size_t k = 0; k < keys.size(); ++k) {
    if (Text(Child(entry, static_cast<uint32_t>(k))) != keys[k]) return false;
  }
  return true;
}

int CdbSnapshot::FindByKey(const Node* node, std::string_view name,
                           const std::vector<std::string>& keys) const {
  // A leaf-list entry is keyed by its value, a list entry by its first children.
  auto matches = [&](const Node& c) {
    return c.childCount == 0 ? keys.size() == 1 && Text(c) == keys[0] : KeysMatch(c, keys);
  };
  if (node->childCount < kIndexFrom) {
    for (uint32_t i = 0; i < node->childCount; ++i) {
      const Node& c = Child(*node, i);
      if (Name(c) == name && matches(c)) return static_cast<int>(i);
    }
    return -1;
  }
  IndexOf(node);
  Children& children = index_.at(node);
  if (!children.keysIndexed) {
    for (uint32_t i = 0; i < node->childCount; ++i) {
      const Node& c = Child(*node, i);
      // Keys come first among an entry's children; one key covers this module's lists.
      const std::string key(c.childCount == 0 ? Text(c) : Text(Child(c, 0)));
      children.byKey.emplace(KeyText(Name(c), {key}), static_cast<int>(i));
    }
    children.keysIndexed = true;
  }
  auto it = children.byKey.find(KeyText(name, keys));
  if (it != children.byKey.end()) return it->second;
  // Several keys: fall back to a scan.
  if (keys.size() > 1) {
    for (uint32_t i = 0; i < node->childCount; ++i) {
      const Node& c = Child(*node, i);
      if (Name(c) == name && matches(c)) return static_cast<int>(i);
    }
  }
  return -1;
}

bool CdbSnapshot::Find(std::string_view path, Found* out, std::string* error) const {
  *out = Found{};
  // Resume below the deepest segment this path shares, whole, with the previous one.
  const size_t common = static_cast<size_t>(
      std::mismatch(path.begin(), path.end(), lastPath_.begin(), lastPath_.end()).first -
      path.begin());
  const Node* node = &nodes_[0];
  size_t start = 0;
  size_t kept = 0;
  for (const Step& step : lastSteps_) {
    if (step.end > common || step.end >= path.size() || path[step.end] != '/') break;
    node = step.node;
    start = step.end;
    ++kept;
  }
  lastSteps_.resize(kept);
  lastPath_.assign(path);

  std::vector<pbr::mgmt::KeypathSegment> segments;
  if (!pbr::mgmt::SplitKeypath(path.substr(start), &segments, error)) {
    lastSteps_.clear();
    return false;
  }
  for (const pbr::mgmt::KeypathSegment& seg : segments) {
    *out = Found{};  // until this segment is found
    Run run;
    if (node->childCount < kIndexFrom) {
      for (uint32_t i = 0; i < node->childCount; ++i) {
        if (Name(Child(*node, i)) != seg.name) continue;
        if (run.count == 0) run.first = static_cast<int>(i);
        ++run.count;
      }
    } else {
      const Children& children = IndexOf(node);
      auto it = children.runs.find(seg.name);
      if (it != children.runs.end()) run = it->second;
    }
    int index = run.first;
    if (seg.positional) {
      if (seg.position >= run.count) return true;
      index += static_cast<int>(seg.position);
    } else if (seg.keyed) {
      index = FindByKey(node, seg.name, seg.keys);
      if (index < 0) return true;
    } else if (&seg != &segments.back()) {
      if (run.count != 1) return true;
    } else {
      // A list or leaf-list named whole: all its entries.
      if (run.count > 0) *out = Found{&Child(*node, static_cast<uint32_t>(run.first)), run.count};
      return true;
    }
    node = &Child(*node, static_cast<uint32_t>(index));
    *out = Found{node, 1};
    lastSteps_.push_back({start + seg.end, node});
  }
  return true;
}

}  // namespace vqconfd::detail
