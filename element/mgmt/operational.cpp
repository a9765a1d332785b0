#include "element/mgmt/operational.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

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

// RFC 7951 writes these types' values as JSON numbers and literals, the others as strings.
bool Bare(LY_DATA_TYPE type) {
  switch (type) {
    case LY_TYPE_INT8:
    case LY_TYPE_INT16:
    case LY_TYPE_INT32:
    case LY_TYPE_UINT8:
    case LY_TYPE_UINT16:
    case LY_TYPE_UINT32:
    case LY_TYPE_BOOL:
      return true;
    default:
      return false;
  }
}

void OpenXml(const lysc_node* schema, bool withNamespace, std::string* out) {
  *out += '<';
  *out += schema->name;
  if (withNamespace) {
    *out += " xmlns=\"";
    *out += schema->module->ns;
    *out += '"';
  }
  *out += '>';
}

void CloseXml(const lysc_node* schema, std::string* out) {
  *out += "</";
  *out += schema->name;
  *out += '>';
}

void LeafXml(const lysc_node* schema, const std::string& value, std::string* out) {
  OpenXml(schema, false, out);
  AppendXmlText(value, out);
  CloseXml(schema, out);
}

void LeafJson(const lysc_node* schema, const std::string& value, bool bare, std::string* out) {
  AppendJsonString(schema->name, out);
  *out += ':';
  if (bare) {
    *out += value;
  } else {
    AppendJsonString(value, out);
  }
}

}  // namespace

OperationalView::OperationalView(ly_ctx* ctx, const lysc_node* list) : ctx_(ctx), list_(list) {
  for (const lysc_node* n = list->parent; n; n = n->parent) {
    if (n->nodetype == LYS_CONTAINER) ancestors_.insert(ancestors_.begin(), n);
  }
  // Children print in the order of the schema, whatever order the reply gave them in.
  int next = 0;
  std::vector<const lysc_node*> pending{list};
  while (!pending.empty()) {
    const lysc_node* parent = pending.back();
    pending.pop_back();
    for (const lysc_node* c = nullptr; (c = lys_getnext(c, parent, nullptr, 0));) {
      order_[c] = next++;
      if (c->nodetype == LYS_CONTAINER) pending.push_back(c);
      if (parent == list && lysc_is_key(c)) key_ = c;
    }
  }
}

bool OperationalView::Typed(const lysc_node* schema, const std::string& text, Item* item,
                            std::string* error) {
  item->schema = schema;
  // A string without length or pattern takes any text as it is, as libyang's own check does;
  // most of the view's values are such strings, and the check would cost a dictionary entry.
  const auto* declared = reinterpret_cast<const lysc_node_leaf*>(schema)->type;
  if (declared->basetype == LY_TYPE_STRING) {
    const auto* str = reinterpret_cast<const lysc_type_str*>(declared);
    if (!str->length && !str->patterns) {
      item->value = text;
      item->bare = false;
      return true;
    }
  }
  const lysc_type* type = nullptr;
  const char* canonical = nullptr;
  // Incomplete: a reference, which a view entry cannot resolve on its own.
  const LY_ERR checked =
      lyd_value_validate(ctx_, schema, text.data(), text.size(), nullptr, &type, &canonical);
  if (checked != LY_SUCCESS && checked != LY_EINCOMPLETE) {
    const ly_err_item* e = ly_err_last(ctx_);
    *error = e && e->msg ? e->msg : "bad value for " + std::string(schema->name);
    return false;
  }
  if (type->basetype == LY_TYPE_IDENT || type->basetype == LY_TYPE_INST) {
    // Their text names modules, which the two formats write differently.
    lydict_remove(ctx_, canonical);
    *error = std::string("no view of values of the type of ") + schema->name;
    return false;
  }
  item->value = canonical ? canonical : text;
  item->bare = Bare(type->basetype);
  lydict_remove(ctx_, canonical);
  return true;
}

bool OperationalView::Add(const Value& key, const ObjectReply& reply, std::string* error) {
  last_ = kNone;
  Entry entry;
  if (!key_ || !Typed(key_, key.text(), &entry.key, error)) {
    *error = "bad key " + key.text();
    return false;
  }
  std::vector<int> open{-1};  // the containers the reply is in
  auto parentSchema = [&] { return open.back() < 0 ? list_ : entry.items[open.back()].schema; };
  for (const TagValue& tv : reply.value()) {
    const std::string name(pbr::yang::NameOfTag(tv.tag()));
    const uint32_t type = tv.value().type();
    if (name.empty()) {
      *error = "unknown tag " + std::to_string(tv.tag());
      return false;
    }
    if (type == C_XMLEND) {
      if (open.size() < 2) {
        *error = "unbalanced end of " + name;
        return false;
      }
      open.pop_back();
      continue;
    }
    if (type == C_NOEXISTS) continue;
    const uint16_t nodetype = type == C_XMLBEGIN ? LYS_CONTAINER : LYS_LEAF;
    const lysc_node* schema =
        lys_find_child(parentSchema(), list_->module, name.c_str(), 0, nodetype, 0);
    if (!schema) {
      *error = (type == C_XMLBEGIN ? "no container " : "no leaf ") + name;
      return false;
    }
    if (schema == key_) continue;  // given with the entry
    for (const Item& item : entry.items) {
      if (item.schema == schema && item.parent == open.back()) {
        *error = "duplicate " + name;
        return false;
      }
    }
    Item item{schema, {}, open.back(), false};
    if (type == C_XMLBEGIN) {
      entry.items.push_back(std::move(item));
      open.push_back(static_cast<int>(entry.items.size()) - 1);
      continue;
    }
    const std::string& text = tv.value().text();
    if (type == C_ENUM_VALUE) {
      // An enumeration's value by its number: the name found is valid as it is.
      const char* enumName =
          EnumName(schema, static_cast<int32_t>(std::strtol(text.c_str(), nullptr, 10)));
      if (!enumName) {
        *error = "no value " + text + " for " + name;
        return false;
      }
      item.value = enumName;
    } else if (!Typed(schema, text, &item, error)) {
      return false;
    }
    entry.items.push_back(std::move(item));
  }
  entries_.push_back(std::move(entry));
  last_ = entries_.size() - 1;
  return true;
}

void OperationalView::AddRuleLeaf(size_t index, const char* leaf, const std::string& value) {
  if (index >= entries_.size()) return;
  Entry& entry = entries_[index];
  int rule = -1;
  for (size_t i = 0; i < entry.items.size(); ++i) {
    if (entry.items[i].parent == -1 && std::strcmp(entry.items[i].schema->name, "rule") == 0) {
      rule = static_cast<int>(i);
    }
  }
  const lysc_node* ruleSchema =
      rule >= 0 ? entry.items[rule].schema
                : lys_find_child(list_, list_->module, "rule", 0, LYS_CONTAINER, 0);
  const lysc_node* schema =
      ruleSchema ? lys_find_child(ruleSchema, list_->module, leaf, 0, LYS_LEAF, 0) : nullptr;
  Item item{};
  std::string why;
  if (!schema || !Typed(schema, value, &item, &why)) return;
  if (rule < 0) {
    entry.items.push_back({ruleSchema, {}, -1, false});
    rule = static_cast<int>(entry.items.size()) - 1;
  }
  item.parent = rule;
  entry.items.push_back(std::move(item));
}

std::vector<int> OperationalView::Children(const Entry& entry, int parent) const {
  std::vector<int> children;
  for (size_t i = 0; i < entry.items.size(); ++i) {
    if (entry.items[i].parent == parent) children.push_back(static_cast<int>(i));
  }
  std::stable_sort(children.begin(), children.end(), [&](int a, int b) {
    return order_.at(entry.items[a].schema) < order_.at(entry.items[b].schema);
  });
  return children;
}

void OperationalView::PrintXml(const Entry& entry, int parent, std::string* out) const {
  for (const int i : Children(entry, parent)) {
    const Item& item = entry.items[i];
    if (item.schema->nodetype == LYS_CONTAINER) {
      OpenXml(item.schema, false, out);
      PrintXml(entry, i, out);
      CloseXml(item.schema, out);
    } else {
      LeafXml(item.schema, item.value, out);
    }
  }
}

void OperationalView::PrintJson(const Entry& entry, int parent, std::string* out) const {
  bool first = true;
  for (const int i : Children(entry, parent)) {
    const Item& item = entry.items[i];
    if (!first) *out += ',';
    first = false;
    if (item.schema->nodetype == LYS_CONTAINER) {
      AppendJsonString(item.schema->name, out);
      *out += ":{";
      PrintJson(entry, i, out);
      *out += '}';
    } else {
      LeafJson(item.schema, item.value, item.bare, out);
    }
  }
}

std::string OperationalView::Xml() const {
  std::string out;
  if (entries_.empty()) return out;
  for (const lysc_node* a : ancestors_) OpenXml(a, a == ancestors_.front(), &out);
  for (const Entry& entry : entries_) {
    OpenXml(list_, ancestors_.empty(), &out);
    LeafXml(key_, entry.key.value, &out);
    PrintXml(entry, -1, &out);
    CloseXml(list_, &out);
  }
  for (auto a = ancestors_.rbegin(); a != ancestors_.rend(); ++a) CloseXml(*a, &out);
  return out;
}

std::string OperationalView::Json() const {
  if (entries_.empty()) return "{}";
  // Top-level names carry their module, as RFC 7951 has it.
  std::string out = "{";
  const std::string top = std::string(list_->module->name) + ':';
  for (const lysc_node* a : ancestors_) {
    AppendJsonString((a == ancestors_.front() ? top : "") + a->name, &out);
    out += ":{";
  }
  AppendJsonString((ancestors_.empty() ? top : "") + list_->name, &out);
  out += ":[";
  for (const Entry& entry : entries_) {
    if (&entry != &entries_.front()) out += ',';
    out += '{';
    LeafJson(key_, entry.key.value, entry.key.bare, &out);
    if (!entry.items.empty()) out += ',';
    PrintJson(entry, -1, &out);
    out += '}';
  }
  out += ']';
  for (size_t i = 0; i < ancestors_.size(); ++i) out += '}';
  out += '}';
  return out;
}

}  // namespace pbr::mgmt
