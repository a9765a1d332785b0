#include "element/mgmt/operational.h"

#include <cstdlib>
#include <cstring>
#include <vector>

#include "element/mgmt/json_text.h"
#include "element/yang/tags.h"
#include "platform/confd_lib.h"

namespace pbr::mgmt {
namespace {

// The name of an enumeration value of leaf `schema`.
const char* EnumName(const lysc_node* schema, int32_t value) {
  const auto* type = reinterpret_cast<const lysc_node_leaf*>(schema)->type;
  if (type->basetype != LY_TYPE_ENUM) return nullptr;
  const auto* en = reinterpret_cast<const lysc_type_enum*>(type);
  LY_ARRAY_COUNT_TYPE i;
  LY_ARRAY_FOR(en->enums, i) {
    if (en->enums[i].value == value) return en->enums[i].name;
  }
  return nullptr;
}

}  // namespace

OperationalView::OperationalView(ly_ctx* ctx, const lysc_node* list) : ctx_(ctx), list_(list) {}

OperationalView::~OperationalView() {
  lyd_free_siblings(tree_);
}

bool OperationalView::Add(const Value& key, const ObjectReply& reply, std::string* error) {
  if (!parent_ &&
      lyd_new_inner(nullptr, list_->module, list_->parent->name, 0, &parent_) != LY_SUCCESS) {
    *error = "cannot build the view";
    return false;
  }
  tree_ = parent_;
  lyd_node* entry = nullptr;
  if (lyd_new_list(parent_, nullptr, list_->name, 0, &entry, key.text().c_str()) != LY_SUCCESS) {
    *error = "bad key " + key.text();
    return false;
  }
  std::vector<lyd_node*> stack{entry};
  bool ok = true;
  for (const TagValue& tv : reply.value()) {
    const std::string name(pbr::yang::NameOfTag(tv.tag()));
    const uint32_t type = tv.value().type();
    if (name.empty()) {
      *error = "unknown tag " + std::to_string(tv.tag());
      ok = false;
      break;
    }
    if (type == C_XMLEND) {
      if (stack.size() < 2) {
        *error = "unbalanced end of " + name;
        ok = false;
        break;
      }
      stack.pop_back();
      continue;
    }
    if (type == C_XMLBEGIN) {
      lyd_node* inner = nullptr;
      if (lyd_new_inner(stack.back(), nullptr, name.c_str(), 0, &inner) != LY_SUCCESS) {
        *error = "no container " + name;
        ok = false;
        break;
      }
      stack.push_back(inner);
      continue;
    }
    if (type == C_NOEXISTS) continue;
    const lysc_node* schema =
        lys_find_child(stack.back()->schema, list_->module, name.c_str(), 0, 0, 0);
    if (!schema) {
      *error = "no leaf " + name;
      ok = false;
      break;
    }
    if (lysc_is_key(schema)) continue;  // set with the entry
    std::string text = tv.value().text();
    if (type == C_ENUM_VALUE) {
      const char* enumName =
          EnumName(schema, static_cast<int32_t>(std::strtol(text.c_str(), nullptr, 10)));
      if (!enumName) {
        *error = "no value " + text + " for " + name;
        ok = false;
        break;
      }
      text = enumName;
    }
    if (lyd_new_term(stack.back(), nullptr, name.c_str(), text.c_str(), 0, nullptr) != LY_SUCCESS) {
      const ly_err_item* e = ly_err_last(ctx_);
      *error = e && e->msg ? e->msg : "bad value for " + name;
      ok = false;
      break;
    }
  }
  if (!ok) lyd_free_tree(entry);
  last_ = ok ? entry : nullptr;
  return ok;
}

void OperationalView::AddRuleLeaf(lyd_node* entry, const char* leaf, const std::string& value) {
  lyd_node* rule = nullptr;
  for (lyd_node* child = lyd_child(entry); child; child = child->next) {
    if (std::strcmp(child->schema->name, "rule") == 0) rule = child;
  }
  if (!rule && lyd_new_inner(entry, nullptr, "rule", 0, &rule) != LY_SUCCESS) return;
  lyd_new_term(rule, nullptr, leaf, value.c_str(), 0, nullptr);
}

std::string OperationalView::Json() const {
  return PrintJson(tree_);
}

std::string OperationalView::Xml() const {
  return PrintXml(tree_);
}

}  // namespace pbr::mgmt
