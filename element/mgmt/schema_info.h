// What the management server knows of each schema node beyond libyang: its XML tag (from
// common/pbr_tags.def) and, for leaves and leaf-lists, the ConfD value type its values are
// delivered as. Attached to the compiled nodes (lysc_node::priv) once at start; read-only after.
#pragma once

#include <libyang/libyang.h>

#include <cstdint>
#include <deque>
#include <string>

#include "element/mgmt/mgmt.pb.h"
#include "platform/confd_lib.h"

namespace pbr::mgmt {

struct NodeInfo {
  uint32_t tag = 0;
  uint32_t ns = 0;
  confd_vtype type = C_NOEXISTS;  // leaves and leaf-lists only
  // Strings with a length limit: the limit holds in bytes too, as daemons read such values into
  // buffers of that many bytes and a NUL. 0: no limit.
  uint32_t maxBytes = 0;
};

class SchemaInfo {
 public:
  // Annotates every node of the PBR module in `ctx`; `ns` is the module's namespace hash. Fails
  // (with *error) when a node has no tag or a leaf a type without a ConfD counterpart.
  bool Annotate(ly_ctx* ctx, uint32_t ns, std::string* error);

  static const NodeInfo& Of(const lysc_node* node) {
    return *static_cast<const NodeInfo*>(node->priv);
  }

 private:
  std::deque<NodeInfo> infos_;
};

// The value of a leaf or leaf-list entry as sent on the wire.
void SetValue(const lyd_node* term, Value* out);

// The keypath element of a node's tag.
void SetTagElement(const lysc_node* schema, KeypathElement* out);

// The keypath element of a list entry's keys, or of a leaf-list entry's value.
void SetKeyElement(const lyd_node* entry, KeypathElement* out);

}  // namespace pbr::mgmt
