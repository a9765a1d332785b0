#include "element/framework/cdb_snapshot.h"

#include <algorithm>

#include "element/mgmt/keypath_text.h"

namespace vqconfd::detail {
namespace {

using pbr::mgmt::Node;

// Nodes with few children are searched directly; longer child lists get an index.
constexpr int kIndexFrom = 16;

bool KeysMatch(const Node& entry, const std::vector<std::string>& keys) {
  if (entry.child_size() < static_cast<int>(keys.size())) return false;
  for (size_t k = 0; k < keys.size(); ++k) {
    if (entry.child(static_cast<int>(k)).value().text() != keys[k]) return false;
  }
  return true;
}

std::string KeyText(const std::vector<std::string>& keys) {
  std::string text;
  for (const std::string& k : keys) text += k + '\0';
  return text;
}

}  // namespace

const CdbSnapshot::Children& CdbSnapshot::IndexOf(const Node* node) const {
  auto [it, added] = index_.try_emplace(node);
  if (added) {
    for (int i = 0; i < node->child_size(); ++i) {
      Run& run = it->second.runs[node->child(i).name()];
      if (run.count == 0) run.first = i;
      ++run.count;
    }
  }
  return it->second;
}

int CdbSnapshot::FindByKey(const Node* node, const std::string& name,
                           const std::vector<std::string>& keys) const {
  if (node->child_size() < kIndexFrom) {
    for (int i = 0; i < node->child_size(); ++i) {
      const Node& c = node->child(i);
      if (c.name() != name) continue;
      // A leaf-list entry is keyed by its value, a list entry by its first children.
      if (c.child_size() == 0 ? keys.size() == 1 && c.value().text() == keys[0]
                              : KeysMatch(c, keys)) {
        return i;
      }
    }
    return -1;
  }
  IndexOf(node);
  Children& children = index_.at(node);
  if (!children.keysIndexed) {
    for (int i = 0; i < node->child_size(); ++i) {
      const Node& c = node->child(i);
      std::vector<std::string> own;
      if (c.child_size() == 0) {
        own.push_back(c.value().text());
      } else {
        // Keys come first among an entry's children; one key covers this module's lists.
        own.push_back(c.child(0).value().text());
      }
      children.byKey.emplace(c.name() + '\0' + KeyText(own), i);
    }
    children.keysIndexed = true;
  }
  auto it = children.byKey.find(name + '\0' + KeyText(keys));
  if (it != children.byKey.end()) return it->second;
  // Several keys: fall back to a scan.
  if (keys.size() > 1) {
    for (int i = 0; i < node->child_size(); ++i) {
      if (node->child(i).name() == name && KeysMatch(node->child(i), keys)) return i;
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
  const Node* node = root_;
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
    if (node->child_size() < kIndexFrom) {
      for (int i = 0; i < node->child_size(); ++i) {
        if (node->child(i).name() != seg.name) continue;
        if (run.count == 0) run.first = i;
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
      *out = Found{node, run.first, run.count};
      return true;
    }
    *out = Found{node, index, 1};
    node = &node->child(index);
    lastSteps_.push_back({start + seg.end, node});
  }
  return true;
}

}  // namespace vqconfd::detail
