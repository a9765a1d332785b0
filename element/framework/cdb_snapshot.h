// The running configuration as the server sent it at attachment, serving the CDB reads a
// configuration handler makes in ReadInitialConfig. Paths are ConfD's: /router/pbr[3]/id
// addresses a list entry by position (from 0, in key order), /router/pbr{7}/id by key.
//
// The snapshot is read straight from its wire form (a pbr.mgmt.Node) into a flat array of small
// records whose names and values point into the received bytes: parsed into messages, 65,536
// rules took about 150 MB and a fifth of the attach. Lookups of long lists index them on first
// use, so reading every entry by position is linear, and a lookup walks only the segments in
// which its path differs from the previous one's, as the reads of one entry's leaves share all
// but their last segments.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "element/mgmt/mgmt.pb.h"

namespace vqconfd::detail {

class CdbSnapshot {
 public:
  // Reads the serialized root node `wire`, which must outlive the snapshot. valid() tells
  // whether it parsed.
  explicit CdbSnapshot(std::string_view wire);
  // Keeps its own serialized copy of `root`.
  explicit CdbSnapshot(const pbr::mgmt::Node* root);
  CdbSnapshot(const CdbSnapshot&) = delete;
  CdbSnapshot& operator=(const CdbSnapshot&) = delete;

  bool valid() const { return valid_; }

  // One node: a leaf or leaf-list entry has a value; containers and list entries have children.
  struct Node {
    uint32_t nameAt = 0;
    uint32_t nameSize = 0;
    uint32_t textAt = 0;
    uint32_t textSize = 0;
    uint32_t type = 0;
    uint32_t firstChild = 0;
    uint32_t childCount = 0;
    bool hasValue = false;
  };
  std::string_view Name(const Node& n) const { return wire_.substr(n.nameAt, n.nameSize); }
  std::string_view Text(const Node& n) const { return wire_.substr(n.textAt, n.textSize); }

  // The nodes a path names, consecutive children of one parent: one for a leaf or container,
  // every entry for a list or leaf-list path without position or key.
  struct Found {
    const Node* first = nullptr;
    int count = 0;
    const Node& operator[](int i) const { return first[i]; }
  };

  // What `path` names; count 0 when nothing is there. False with *error when the path is
  // malformed.
  bool Find(std::string_view path, Found* out, std::string* error) const;

 private:
  void Init(std::string_view wire);
  bool Parse(std::string_view message, Node* out, int depth);
  const Node& Child(const Node& n, uint32_t i) const { return nodes_[n.firstChild + i]; }

  struct Run {
    int first = 0;
    int count = 0;
  };
  struct Children {
    std::unordered_map<std::string_view, Run> runs;
    std::unordered_map<std::string, int> byKey;  // "name\0key\0" -> child index, built lazily
    bool keysIndexed = false;
  };
  const Children& IndexOf(const Node* node) const;
  int FindByKey(const Node* node, std::string_view name,
                const std::vector<std::string>& keys) const;
  bool KeysMatch(const Node& entry, const std::vector<std::string>& keys) const;

  std::string owned_;  // the serialized root, when the snapshot was made from a message
  std::string_view wire_;
  std::vector<Node> nodes_;  // nodes_[0] is the root; each node's children are consecutive
  bool valid_ = false;

  // The previous lookup's path and, for each segment it descended through, where that segment
  // ends in the path and the node it led to.
  struct Step {
    size_t end;
    const Node* node;
  };
  mutable std::string lastPath_;
  mutable std::vector<Step> lastSteps_;
  mutable std::unordered_map<const Node*, Children> index_;
};

// When `serverMessage` (a serialized pbr.mgmt.ServerMessage) is an AttachReply: true, with its
// seq and its serialized root node, left unparsed for a CdbSnapshot.
bool PeekAttachReply(std::string_view serverMessage, uint64_t* seq, std::string_view* root);

}  // namespace vqconfd::detail
