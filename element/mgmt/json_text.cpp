#include "element/mgmt/json_text.h"

#include <cstdio>
#include <cstdlib>

namespace pbr::mgmt {
namespace {

// libyang prints through a FILE: a memory stream grows its buffer geometrically, where
// lyd_print_mem formats every piece into a fresh allocation and copies it over.
std::string Print(const lyd_node* tree, LYD_FORMAT format, uint32_t options) {
  char* text = nullptr;
  size_t size = 0;
  FILE* stream = open_memstream(&text, &size);
  if (!stream) return {};
  lyd_print_file(stream, tree, format, options);
  std::fclose(stream);
  std::string out(text ? text : "", text ? size : 0);
  std::free(text);
  return out;
}

// Appends `node` and its subtree as libyang prints them with LYD_PRINT_SHRINK (explicit
// defaults); false for what only libyang's printer handles: opaque nodes, any-nodes, metadata
// and values whose XML form declares prefixes. libyang writes a value byte by byte through
// its output, which made printing a large configuration a third of a NETCONF get.
bool AppendXml(const lyd_node* node, std::string* out) {
  const lysc_node* schema = node->schema;
  if (!schema || node->meta || !(schema->nodetype & (LYD_NODE_INNER | LYD_NODE_TERM))) {
    return false;
  }
  // Defaults are left out, as libyang's explicit mode does for configuration, the only data
  // printed here.
  if (node->flags & LYD_DEFAULT) return true;
  *out += '<';
  *out += schema->name;
  if (!lyd_parent(node) || lyd_parent(node)->schema->module != schema->module) {
    *out += " xmlns=\"";
    *out += schema->module->ns;
    *out += '"';
  }
  const char* value = nullptr;
  if (schema->nodetype & LYD_NODE_TERM) {
    const lyd_value& typed = reinterpret_cast<const lyd_node_term*>(node)->value;
    const LY_DATA_TYPE type = typed.realtype->basetype;
    if (type == LY_TYPE_IDENT || type == LY_TYPE_INST || type == LY_TYPE_UNION) return false;
    value = lyd_get_value(node);
  }
  const lyd_node* child = lyd_child(node);
  while (child && (child->flags & LYD_DEFAULT) && child->schema) child = child->next;
  if (value ? !*value : !child) {
    *out += "/>";
    return true;
  }
  *out += '>';
  if (value) AppendXmlText(value, out);
  for (; child; child = child->next) {
    if (!AppendXml(child, out)) return false;
  }
  *out += "</";
  *out += schema->name;
  *out += '>';
  return true;
}

}  // namespace

std::string PrintJson(const lyd_node* tree, bool compact) {
  const char* empty = compact ? "{}" : "{}\n";
  if (!tree) return empty;
  std::string out =
      Print(tree, LYD_JSON, LYD_PRINT_WITHSIBLINGS | (compact ? LYD_PRINT_SHRINK : 0u));
  return out.empty() ? empty : out;
}

std::string PrintXml(const lyd_node* tree) {
  std::string out;
  for (const lyd_node* node = tree; node; node = node->next) {
    if (!AppendXml(node, &out))
      return Print(tree, LYD_XML, LYD_PRINT_WITHSIBLINGS | LYD_PRINT_SHRINK);
  }
  return out;
}

void AppendXmlText(std::string_view text, std::string* out) {
  for (const char c : text) {
    switch (c) {
      case '<':
        *out += "&lt;";
        break;
      case '>':
        *out += "&gt;";
        break;
      case '&':
        *out += "&amp;";
        break;
      default:
        *out += c;
    }
  }
}

void AppendJsonString(std::string_view text, std::string* out) {
  *out += '"';
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      *out += '\\';
      *out += c;
    } else if (byte < 0x20) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04x", byte);
      *out += escaped;
    } else {
      *out += c;
    }
  }
  *out += '"';
}

}  // namespace pbr::mgmt
