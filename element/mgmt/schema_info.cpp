#include "element/mgmt/schema_info.h"

#include <string_view>
#include <unordered_map>

#include "element/yang/module.h"

#include "element/yang/tags.h"

namespace pbr::mgmt {
namespace {

// The ConfD type of a leaf from its typedef chain: the address types have their own ConfD
// types, everything else follows the YANG base type.
bool ConfdType(const lysp_type& type, LY_DATA_TYPE base, confd_vtype* out) {
  std::string_view name = type.name ? type.name : "";
  if (auto colon = name.find(':'); colon != std::string_view::npos) name.remove_prefix(colon + 1);
  if (name == "ipv4-address" || name == "ipv4-address-no-zone") {
    *out = C_IPV4;
    return true;
  }
  if (name == "ipv4-address-and-prefix-length") {
    *out = C_IPV4_AND_PLEN;
    return true;
  }
  switch (base) {
    case LY_TYPE_UINT8:
      *out = C_UINT8;
      return true;
    case LY_TYPE_UINT16:
      *out = C_UINT16;
      return true;
    case LY_TYPE_UINT32:
      *out = C_UINT32;
      return true;
    case LY_TYPE_UINT64:
      *out = C_UINT64;
      return true;
    case LY_TYPE_INT8:
      *out = C_INT8;
      return true;
    case LY_TYPE_INT16:
      *out = C_INT16;
      return true;
    case LY_TYPE_INT32:
      *out = C_INT32;
      return true;
    case LY_TYPE_INT64:
      *out = C_INT64;
      return true;
    case LY_TYPE_STRING:
      *out = C_BUF;
      return true;
    case LY_TYPE_BOOL:
      *out = C_BOOL;
      return true;
    case LY_TYPE_ENUM:
      *out = C_ENUM_VALUE;
      return true;
    default:
      return false;
  }
}

// Schema path without module prefixes, the same in every context holding the module.
std::string Path(const lysc_node* node) {
  char buf[512];
  return lysc_path(node, LYSC_PATH_DATA, buf, sizeof buf) ? buf : "";
}

// Calls `fn` on `node`, its siblings and their descendants, choices and cases included, until it
// returns false.
template <typename Fn>
bool ForEachNode(const lysc_node* node, Fn& fn) {
  for (; node; node = node->next) {
    if (!fn(node) || !ForEachNode(lysc_node_child(node), fn)) return false;
  }
  return true;
}

// The same for every node of the PBR module in `ctx`.
template <typename Fn>
bool ForEachNode(const ly_ctx* ctx, Fn fn) {
  return ForEachNode(pbr::yang::Module(ctx)->compiled->data, fn);
}

// The upper bound of a string leaf's length restriction; 0 without one.
uint32_t MaxLength(const lysc_node* node) {
  const lysc_type* type = node->nodetype & LYS_LEAF
                              ? reinterpret_cast<const lysc_node_leaf*>(node)->type
                              : reinterpret_cast<const lysc_node_leaflist*>(node)->type;
  if (type->basetype != LY_TYPE_STRING) return 0;
  const lysc_range* length = reinterpret_cast<const lysc_type_str*>(type)->length;
  if (!length || LY_ARRAY_COUNT(length->parts) == 0) return 0;
  return static_cast<uint32_t>(length->parts[LY_ARRAY_COUNT(length->parts) - 1].max_u64);
}

}  // namespace

bool SchemaInfo::Annotate(ly_ctx* ctx, uint32_t ns, std::string* error) {
  // Compiled types forget their typedef names; a second context that keeps the parsed nodes
  // tells, by schema path, which leaves are addresses.
  pbr::yang::Context parsedCtx = pbr::yang::LoadContext(error, LY_CTX_SET_PRIV_PARSED);
  if (!parsedCtx) return false;
  std::unordered_map<std::string, confd_vtype> types;
  ForEachNode(parsedCtx.get(), [&](const lysc_node* node) {
    if (!(node->nodetype & LYS_LEAF) && !(node->nodetype & LYS_LEAFLIST)) return true;
    const lysp_type& type = node->nodetype & LYS_LEAF
                                ? static_cast<const lysp_node_leaf*>(node->priv)->type
                                : static_cast<const lysp_node_leaflist*>(node->priv)->type;
    const LY_DATA_TYPE base =
        node->nodetype & LYS_LEAF
            ? reinterpret_cast<const lysc_node_leaf*>(node)->type->basetype
            : reinterpret_cast<const lysc_node_leaflist*>(node)->type->basetype;
    confd_vtype vtype;
    if (!ConfdType(type, base, &vtype)) {
      *error = std::string("leaf \"") + node->name + "\" has a type without a ConfD value type";
      return false;
    }
    types[Path(node)] = vtype;
    return true;
  });
  if (!error->empty()) return false;

  return ForEachNode(ctx, [&](const lysc_node* node) {
    NodeInfo& info = infos_.emplace_back();
    info.ns = ns;
    if (!(node->nodetype & (LYS_CHOICE | LYS_CASE))) {
      auto tag = pbr::yang::TagOfName(node->name);
      if (!tag) {
        *error = std::string("node \"") + node->name + "\" has no XML tag";
        return false;
      }
      info.tag = *tag;
    }
    if (node->nodetype & (LYS_LEAF | LYS_LEAFLIST)) {
      info.type = types.at(Path(node));
      info.maxBytes = MaxLength(node);
    }
    const_cast<lysc_node*>(node)->priv = &info;
    return true;
  });
}

void SetValue(const lyd_node* term, Value* out) {
  const NodeInfo& info = SchemaInfo::Of(term->schema);
  out->set_type(info.type);
  if (info.type == C_ENUM_VALUE) {
    const auto* t = reinterpret_cast<const lyd_node_term*>(term);
    out->set_text(std::to_string(t->value.enum_item->value));
  } else {
    out->set_text(lyd_get_value(term));
  }
}

void SetTagElement(const lysc_node* schema, KeypathElement* out) {
  const NodeInfo& info = SchemaInfo::Of(schema);
  out->set_tag(info.tag);
  out->set_ns(info.ns);
}

void SetKeyElement(const lyd_node* entry, KeypathElement* out) {
  if (entry->schema->nodetype == LYS_LEAFLIST) {
    SetValue(entry, out->add_key());
    return;
  }
  for (const lyd_node* key = lyd_child(entry); key && lysc_is_key(key->schema); key = key->next) {
    SetValue(key, out->add_key());
  }
}

}  // namespace pbr::mgmt
