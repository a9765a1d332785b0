#include "element/cli/config_tree.h"

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "element/cli/command.h"

namespace pbr::cli {
namespace {

bool IsNumeric(const lysc_node* schema) {
  const LY_DATA_TYPE type = reinterpret_cast<const lysc_node_leaf*>(schema)->type->basetype;
  return type >= LY_TYPE_UINT8 && type <= LY_TYPE_INT64;
}

// Canonical integers: the sign, then the number of digits, then the digits decide.
bool NumericLess(std::string_view a, std::string_view b) {
  const bool negA = a.starts_with('-'), negB = b.starts_with('-');
  if (negA != negB) return negA;
  if (negA) std::swap(a, b);
  if (a.size() != b.size()) return a.size() < b.size();
  return a < b;
}

bool KeysLess(const lyd_node* a, const lyd_node* b) {
  const lyd_node* ka = lyd_child(a);
  const lyd_node* kb = lyd_child(b);
  for (; ka && kb && lysc_is_key(ka->schema); ka = ka->next, kb = kb->next) {
    const std::string_view va = lyd_get_value(ka), vb = lyd_get_value(kb);
    if (va == vb) continue;
    return IsNumeric(ka->schema) ? NumericLess(va, vb) : va < vb;
  }
  return false;
}

// The nodes below `first` to show, in order: list entries in key order, the rest in schema
// order; keys are left out.
std::vector<const lyd_node*> ShownChildren(const lyd_node* first) {
  std::vector<const lyd_node*> shown;
  for (const lyd_node* child = first; child;) {
    if (!child->schema || lysc_is_key(child->schema)) {
      child = child->next;
      continue;
    }
    if (child->schema->nodetype != LYS_LIST) {
      shown.push_back(child);
      child = child->next;
      continue;
    }
    // The instances of one list are siblings in a row; they are shown in key order.
    const size_t start = shown.size();
    const lysc_node* schema = child->schema;
    for (; child && child->schema == schema; child = child->next) shown.push_back(child);
    std::sort(shown.begin() + static_cast<long>(start), shown.end(), KeysLess);
  }
  return shown;
}

// A node's step as typed: its name, with the keys of a list entry or the value of a leaf-list
// entry in braces.
void AppendStep(const lyd_node* node, std::string* out) {
  out->append(node->schema->name);
  if (node->schema->nodetype == LYS_LEAFLIST) {
    out->append("{" + QuoteKey(lyd_get_value(node)) + "}");
  } else if (node->schema->nodetype == LYS_LIST) {
    out->push_back('{');
    bool first = true;
    for (const lyd_node* key = lyd_child(node); key && lysc_is_key(key->schema); key = key->next) {
      if (!first) out->push_back(' ');
      out->append(QuoteKey(lyd_get_value(key)));
      first = false;
    }
    out->push_back('}');
  }
}

void AppendNode(const lyd_node* node, size_t depth, std::string* out);

void AppendChildren(const lyd_node* first, size_t depth, std::string* out) {
  for (const lyd_node* child : ShownChildren(first)) AppendNode(child, depth, out);
}

void AppendSet(const lyd_node* node, std::string& path, std::string* out) {
  const size_t length = path.size();
  path.push_back('/');
  AppendStep(node, &path);
  const std::vector<const lyd_node*> children = ShownChildren(lyd_child(node));
  if (node->schema->nodetype == LYS_LEAF) {
    *out += "set " + path + " " + QuoteWord(lyd_get_value(node)) + "\n";
  } else if (node->schema->nodetype == LYS_LEAFLIST ||
             (node->schema->nodetype == LYS_LIST && children.empty())) {
    *out += "set " + path + "\n";
  }
  for (const lyd_node* child : children) AppendSet(child, path, out);
  path.resize(length);
}

// Parses the configuration `json` into *tree (null when empty); false with *error when it does
// not fit the schema.
bool ParseConfig(ly_ctx* ctx, std::string_view json, lyd_node** tree, std::string* error) {
  ly_err_clean(ctx, nullptr);
  *tree = nullptr;
  const std::string text(json);  // libyang reads a NUL-terminated string
  if (lyd_parse_data_mem(ctx, text.c_str(), LYD_JSON, LYD_PARSE_ONLY | LYD_PARSE_STRICT, 0, tree) !=
      LY_SUCCESS) {
    const ly_err_item* e = ly_err_last(ctx);
    *error = "the running configuration does not fit the schema: " +
             std::string(e && e->msg ? e->msg : "unreadable");
    lyd_free_siblings(*tree);
    *tree = nullptr;
    return false;
  }
  return true;
}

void AppendNode(const lyd_node* node, size_t depth, std::string* out) {
  out->append(depth * 2, ' ');
  AppendStep(node, out);
  if (node->schema->nodetype == LYS_LEAF) {
    out->push_back(' ');
    out->append(QuoteWord(lyd_get_value(node)));
  }
  out->push_back('\n');
  AppendChildren(lyd_child(node), depth + 1, out);
}

}  // namespace

bool FormatConfigTree(ly_ctx* ctx, std::string_view json, std::string* out, std::string* error) {
  lyd_node* tree = nullptr;
  if (!ParseConfig(ctx, json, &tree, error)) return false;
  AppendChildren(tree, 0, out);
  lyd_free_siblings(tree);
  return true;
}

bool FormatConfigSet(ly_ctx* ctx, std::string_view json, std::string* out, std::string* error) {
  lyd_node* tree = nullptr;
  if (!ParseConfig(ctx, json, &tree, error)) return false;
  std::string path;
  for (const lyd_node* node : ShownChildren(tree)) AppendSet(node, path, out);
  lyd_free_siblings(tree);
  return true;
}

bool FormatConfigXml(ly_ctx* ctx, std::string_view json, std::string* out, std::string* error) {
  lyd_node* tree = nullptr;
  if (!ParseConfig(ctx, json, &tree, error)) return false;
  char* text = nullptr;
  if (tree && lyd_print_mem(&text, tree, LYD_XML, LYD_PRINT_WITHSIBLINGS) != LY_SUCCESS) {
    *error = "cannot print the running configuration as XML";
    lyd_free_siblings(tree);
    return false;
  }
  if (text) out->append(text);
  std::free(text);
  lyd_free_siblings(tree);
  return true;
}

}  // namespace pbr::cli
