// The running configuration as the server sent it at attachment, serving the CDB reads a
// configuration handler makes in ReadInitialConfig. Paths are ConfD's: /router/pbr[3]/id
// addresses a list entry by position (from 0, in key order), /router/pbr{7}/id by key.
// Lookups of long lists index them on first use, so reading every entry by position is linear,
// and a lookup walks only the segments in which its path differs from the previous one's, as the
// reads of one entry's leaves share all but their last segments.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "element/mgmt/mgmt.pb.h"

namespace vqconfd::detail {

class CdbSnapshot {
 public:
  // `root` (the snapshot's unnamed root node) stays owned by the caller and must outlive this.
  explicit CdbSnapshot(const pbr::mgmt::Node* root) : root_(root) {}

  // The nodes a path names, consecutive children of one parent: one for a leaf or container,
  // every entry for a list or leaf-list path without position or key.
  struct Found {
    const pbr::mgmt::Node* parent = nullptr;
    int first = 0;
    int count = 0;
    const pbr::mgmt::Node& operator[](int i) const { return parent->child(first + i); }
  };

  // What `path` names; count 0 when nothing is there. False with *error when the path is
  // malformed.
  bool Find(std::string_view path, Found* out, std::string* error) const;

 private:
  struct Run {
    int first = 0;
    int count = 0;
  };
  struct Children {
    std::unordered_map<std::string, Run> runs;
    std::unordered_map<std::string, int> byKey;  // "name{keys}" -> child index, built lazily
    bool keysIndexed = false;
  };
  const Children& IndexOf(const pbr::mgmt::Node* node) const;
  int FindByKey(const pbr::mgmt::Node* node, const std::string& name,
                const std::vector<std::string>& keys) const;

  // The previous lookup's path and, for each segment it descended through, where that segment
  // ends in the path and the node it led to.
  struct Step {
    size_t end;
    const pbr::mgmt::Node* node;
  };
  mutable std::string lastPath_;
  mutable std::vector<Step> lastSteps_;

  const pbr::mgmt::Node* root_;
  mutable std::unordered_map<const pbr::mgmt::Node*, Children> index_;
};

}  // namespace vqconfd::detail
