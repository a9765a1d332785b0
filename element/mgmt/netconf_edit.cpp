#include "element/mgmt/netconf_edit.h"

#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "element/mgmt/entry_key.h"

namespace pbr::mgmt {
namespace {

EditOp OpOf(const lyd_node* node, EditOp inherited) {
  const lyd_meta* meta = lyd_find_meta(node->meta, nullptr, "ietf-netconf:operation");
  if (!meta) return inherited;
  const std::string op = lyd_get_meta_value(meta);
  if (op == "replace") return EditOp::kReplace;
  if (op == "create") return EditOp::kCreate;
  if (op == "delete") return EditOp::kDelete;
  if (op == "remove") return EditOp::kRemove;
  return EditOp::kMerge;
}

std::string PathOf(const lyd_node* node) {
  char* path = lyd_path(node, LYD_PATH_STD, nullptr, 0);
  std::string out = path ? path : "";
  free(path);
  return out;
}

// Drops the operation attributes of a subtree copied from the edit into the datastore.
void StripOperations(lyd_node* tree) {
  lyd_node* node;
  LYD_TREE_DFS_BEGIN(tree, node) {
    if (lyd_meta* meta = lyd_find_meta(node->meta, nullptr, "ietf-netconf:operation")) {
      lyd_free_meta_single(meta);
    }
    LYD_TREE_DFS_END(tree, node);
  }
}

bool HasOperations(const lyd_node* tree) {
  const lyd_node* node;
  LYD_TREE_DFS_BEGIN(tree, node) {
    if (lyd_find_meta(node->meta, nullptr, "ietf-netconf:operation")) return true;
    LYD_TREE_DFS_END(tree, node);
  }
  return false;
}

void Remove(lyd_node** top, lyd_node* node) {
  if (*top == node) *top = node->next;
  lyd_free_tree(node);
}

// The case of `choice` that holds `schema`; null when none does.
const lysc_node* CaseOf(const lysc_node* schema, const lysc_node* choice) {
  for (const lysc_node* s = schema; s; s = s->parent) {
    if (s->parent == choice) return s;
  }
  return nullptr;
}

// A node created in one case of a choice deletes the nodes of its other cases (RFC 7950 7.9).
void DropOtherCases(lyd_node* node, lyd_node** top) {
  for (const lysc_node* s = node->schema;
       s->parent && (s->parent->nodetype & (LYS_CASE | LYS_CHOICE)); s = s->parent) {
    if (s->parent->nodetype != LYS_CHOICE) continue;
    for (lyd_node *sibling = lyd_first_sibling(node), *next; sibling; sibling = next) {
      next = sibling->next;
      const lysc_node* theirs = sibling->schema ? CaseOf(sibling->schema, s->parent) : nullptr;
      if (theirs && theirs != s) Remove(top, sibling);
    }
  }
}

// Puts `node` (unlinked), without its operations, below `parent` or, when that is null, among
// the top-level siblings `*top`.
void Insert(lyd_node* node, lyd_node* parent, lyd_node** top) {
  StripOperations(node);
  if (parent) {
    lyd_insert_child(parent, node);
  } else if (*top) {
    lyd_insert_sibling(*top, node, top);
  } else {
    *top = node;
  }
  DropOtherCases(node, top);
}

// Takes `node` out of the edit (whose first top-level sibling is *edit) and inserts it.
void Move(lyd_node* node, lyd_node** edit, lyd_node* parent, lyd_node** top) {
  if (*edit == node) *edit = node->next;
  lyd_unlink_tree(node);
  Insert(node, parent, top);
}

// Nodes the result takes as they are move out of the edit, which the caller then discards.
bool ApplyNode(lyd_node* edit, lyd_node** editTop, EditOp inherited, lyd_node* parent,
               lyd_node** top, EditError* error) {
  const EditOp op = OpOf(edit, inherited);
  lyd_node* first = parent ? lyd_child(parent) : *top;
  lyd_node* match = nullptr;
  // Instances of a list or leaf-list are told apart by keys or value; any other node by schema
  // alone (finding by instance would compare a leaf's value too).
  if (first && (edit->schema->nodetype & (LYS_LIST | LYS_LEAFLIST))) {
    lyd_find_sibling_first(first, edit, &match);
  } else if (first) {
    lyd_find_sibling_val(first, edit->schema, nullptr, 0, &match);
  }
  switch (op) {
    case EditOp::kDelete:
    case EditOp::kRemove:
      if (!match && op == EditOp::kDelete) {
        *error = {NC_ERR_DATA_MISSING, "nothing to delete", PathOf(edit)};
        return false;
      }
      if (match) Remove(top, match);
      return true;
    case EditOp::kCreate:
      if (match) {
        *error = {NC_ERR_DATA_EXISTS, "already exists", PathOf(edit)};
        return false;
      }
      Move(edit, editTop, parent, top);
      return true;
    case EditOp::kReplace:
      if (match) Remove(top, match);
      Move(edit, editTop, parent, top);
      return true;
    case EditOp::kMerge:
    case EditOp::kNone:
      break;
  }
  if (edit->schema->nodetype & LYD_NODE_TERM) {
    if (op == EditOp::kNone) return true;
    if (!match) {
      Move(edit, editTop, parent, top);
    } else if (edit->schema->nodetype == LYS_LEAF) {
      lyd_change_term(match, lyd_get_value(edit));
    }
    return true;
  }
  if (!match && op == EditOp::kMerge && !HasOperations(edit)) {
    Move(edit, editTop, parent, top);  // merged into nothing: the subtree as it is
    return true;
  }
  if (!match) {
    lyd_dup_single(edit, nullptr, 0, &match);  // a list entry keeps its keys
    Insert(match, parent, top);
  }
  for (lyd_node *child = lyd_child(edit), *next; child; child = next) {
    next = child->next;
    if (child->schema && lysc_is_key(child->schema)) continue;
    if (!ApplyNode(child, editTop, op, match, top, error)) return false;
  }
  return true;
}

// The path libyang's last error names: its location reads `Data location "/a/b", line 3.`.
std::string LocationOf(ly_ctx* ctx) {
  const char* where = ly_errpath(ctx);
  const std::string text = where ? where : "";
  const size_t open = text.find('"');
  const size_t close = open == std::string::npos ? open : text.find('"', open + 1);
  if (close == std::string::npos) return text;
  return text.substr(open + 1, close - open - 1);
}

std::string Quoted(const std::string& value) {
  return value.find('\'') == std::string::npos ? "'" + value + "'" : "\"" + value + "\"";
}

std::string QualifiedName(ly_ctx* ctx, const lyd_node* node) {
  if (node->schema) return std::string(node->schema->module->name) + ":" + node->schema->name;
  const auto* opaq = reinterpret_cast<const lyd_node_opaq*>(node);
  const lys_module* mod =
      opaq->name.module_ns ? ly_ctx_get_module_implemented_ns(ctx, opaq->name.module_ns) : nullptr;
  return mod ? std::string(mod->name) + ":" + opaq->name.name : opaq->name.name;
}

std::string TextOf(const lyd_node* node) {
  const char* value =
      node->schema ? lyd_get_value(node) : reinterpret_cast<const lyd_node_opaq*>(node)->value;
  std::string text = value ? value : "";
  const size_t b = text.find_first_not_of(" \t\r\n");
  if (b == std::string::npos) return {};
  return text.substr(b, text.find_last_not_of(" \t\r\n") - b + 1);
}

// Containment nodes narrow the path, content-match leaves become predicates, and every
// selection leaf or empty container ends one alternative.
void SubtreePaths(ly_ctx* ctx, const lyd_node* node, const std::string& base,
                  std::vector<std::string>* out) {
  std::string path = base + "/" + QualifiedName(ctx, node);
  std::vector<const lyd_node*> selections;
  bool inner = false;
  for (const lyd_node* child = lyd_child(node); child; child = child->next) {
    inner = true;
    const std::string text = TextOf(child);
    if (!lyd_child(child) && !text.empty()) {
      path += "[" + QualifiedName(ctx, child) + "=" + Quoted(text) + "]";
    } else {
      selections.push_back(child);
    }
  }
  if (!inner && !TextOf(node).empty()) {
    out->push_back(base + "[" + QualifiedName(ctx, node) + "=" + Quoted(TextOf(node)) + "]");
    return;
  }
  if (selections.empty()) {
    out->push_back(path);
    return;
  }
  for (const lyd_node* child : selections) SubtreePaths(ctx, child, path, out);
}

}  // namespace

namespace {

// Whether a tree parsed inside an anyxml holds configuration only: a node of an unknown name or
// with an invalid value parses there as opaque, and state data is no configuration.
bool PlainConfig(const lyd_node* tree) {
  for (const lyd_node* top = tree; top; top = top->next) {
    const lyd_node* node;
    LYD_TREE_DFS_BEGIN(top, node) {
      if (!node->schema || (node->schema->flags & LYS_CONFIG_R)) return false;
      LYD_TREE_DFS_END(top, node);
    }
  }
  return true;
}

bool ReadConfigContent(ly_ctx* ctx, lyd_node* config, lyd_node** tree, std::string* error,
                       std::string* path) {
  *tree = nullptr;
  if (!config) {
    *error = "missing <config>";
    return false;
  }
  // The rpc's parse already typed the content against the modules: valid content is taken over
  // as it is, which spares printing and parsing a bulk edit again.
  auto* any = reinterpret_cast<lyd_node_any*>(config);
  if (any->value_type == LYD_ANYDATA_DATATREE && PlainConfig(any->value.tree)) {
    *tree = std::exchange(any->value.tree, nullptr);
    return true;
  }
  // Anything else is parsed again, strictly, for libyang's reason and the place it names.
  char* text = nullptr;
  if (lyd_any_value_str(config, &text) != LY_SUCCESS) {
    *error = "unreadable <config>";
    return false;
  }
  if (!text) return true;  // empty
  const LY_ERR r = lyd_parse_data_mem(
      ctx, text, LYD_XML, LYD_PARSE_ONLY | LYD_PARSE_STRICT | LYD_PARSE_NO_STATE, 0, tree);
  free(text);
  if (r != LY_SUCCESS) {
    const char* msg = ly_errmsg(ctx);
    *error = msg ? msg : "invalid <config>";
    *path = LocationOf(ctx);
    return false;
  }
  return true;
}

}  // namespace

bool ParseConfigContent(ly_ctx* ctx, lyd_node* config, lyd_node** tree, std::string* error,
                        std::string* path) {
  if (!ReadConfigContent(ctx, config, tree, error, path)) return false;
  // Applied entry by entry, a repeated entry would be folded into one where a new one is refused
  // by validation: it is refused either way.
  if (RepeatedEntry(*tree, error, path)) {
    lyd_free_siblings(*tree);
    *tree = nullptr;
    return false;
  }
  return true;
}

bool ApplyEdit(lyd_node** edit, EditOp defaultOp, lyd_node** tree, EditError* error) {
  for (lyd_node *node = *edit, *next; node; node = next) {
    next = node->next;
    if (!ApplyNode(node, edit, defaultOp, nullptr, tree, error)) return false;
  }
  return true;
}

bool ValidateConfig(ly_ctx* ctx, lyd_node** tree, EditError* error) {
  ly_err_clean(ctx, nullptr);
  if (lyd_validate_all(tree, ctx, LYD_VALIDATE_NO_STATE, nullptr) == LY_SUCCESS) return true;
  const char* msg = ly_errmsg(ctx);
  *error = {NC_ERR_INVALID_VALUE, msg ? msg : "invalid configuration", LocationOf(ctx)};
  return false;
}

bool AnyXmlText(const lyd_node* any, char** text) {
  const auto* node = reinterpret_cast<const lyd_node_any*>(any);
  // Parsed content prints without its empty containers unless told otherwise, and in a subtree
  // filter an empty container is a selection.
  if (node->value_type == LYD_ANYDATA_DATATREE) {
    *text = nullptr;
    return !node->value.tree || lyd_print_mem(text, node->value.tree, LYD_XML,
                                              LYD_PRINT_WITHSIBLINGS | LYD_PRINT_KEEPEMPTYCONT |
                                                  LYD_PRINT_SHRINK) == LY_SUCCESS;
  }
  return lyd_any_value_str(any, text) == LY_SUCCESS;
}

bool SubtreeToXPath(ly_ctx* ctx, const lyd_node* filter, std::string* xpath, std::string* error,
                    bool notification) {
  char* text = nullptr;
  if (!AnyXmlText(filter, &text)) {
    *error = "unreadable filter";
    return false;
  }
  if (!text) {
    xpath->clear();
    return true;
  }
  lyd_node* tree = nullptr;
  LY_ERR r;
  if (notification) {
    // The data parser refuses notification elements; one filter selects one notification.
    ly_in* in = nullptr;
    ly_in_new_memory(text, &in);
    r = lyd_parse_op(ctx, nullptr, in, LYD_XML, LYD_TYPE_NOTIF_YANG, &tree, nullptr);
    ly_in_free(in, 0);
  } else {
    r = lyd_parse_data_mem(ctx, text, LYD_XML, LYD_PARSE_ONLY | LYD_PARSE_OPAQ, 0, &tree);
  }
  free(text);
  if (r != LY_SUCCESS) {
    const char* msg = ly_errmsg(ctx);
    *error = std::string("invalid subtree filter: ") + (msg ? msg : "");
    return false;
  }
  std::vector<std::string> paths;
  for (const lyd_node* node = tree; node; node = node->next) SubtreePaths(ctx, node, "", &paths);
  lyd_free_siblings(tree);
  xpath->clear();
  for (const std::string& p : paths) *xpath += (xpath->empty() ? "" : " | ") + p;
  return true;
}

}  // namespace pbr::mgmt
