#include "element/cli/schema_help.h"

#include <libyang/plugins_types.h>
#include <algorithm>

#include <cstring>

#include "element/cli/command.h"
#include "element/yang/module.h"

namespace pbr::cli {
namespace {

const lysc_type* TypeOf(const lysc_node* node) {
  if (node->nodetype == LYS_LEAF) return reinterpret_cast<const lysc_node_leaf*>(node)->type;
  if (node->nodetype == LYS_LEAFLIST) {
    return reinterpret_cast<const lysc_node_leaflist*>(node)->type;
  }
  return nullptr;
}

bool IsUnsigned(LY_DATA_TYPE t) {
  return t == LY_TYPE_UINT8 || t == LY_TYPE_UINT16 || t == LY_TYPE_UINT32 || t == LY_TYPE_UINT64;
}
bool IsSigned(LY_DATA_TYPE t) {
  return t == LY_TYPE_INT8 || t == LY_TYPE_INT16 || t == LY_TYPE_INT32 || t == LY_TYPE_INT64;
}

const char* IntegerName(LY_DATA_TYPE t) {
  switch (t) {
    case LY_TYPE_UINT8:
      return "uint8";
    case LY_TYPE_UINT16:
      return "uint16";
    case LY_TYPE_UINT32:
      return "uint32";
    case LY_TYPE_UINT64:
      return "uint64";
    case LY_TYPE_INT8:
      return "int8";
    case LY_TYPE_INT16:
      return "int16";
    case LY_TYPE_INT32:
      return "int32";
    default:
      return "int64";
  }
}

// The allowed values of an integer type: its range parts, or the whole type.
std::string RangeText(const lysc_type* type) {
  const lysc_range* range = reinterpret_cast<const lysc_type_num*>(type)->range;
  const bool unsignedType = IsUnsigned(type->basetype);
  if (!range) {
    switch (type->basetype) {
      case LY_TYPE_UINT8:
        return "0..255";
      case LY_TYPE_UINT16:
        return "0..65535";
      case LY_TYPE_UINT32:
        return "0..4294967295";
      case LY_TYPE_UINT64:
        return "0..18446744073709551615";
      case LY_TYPE_INT8:
        return "-128..127";
      case LY_TYPE_INT16:
        return "-32768..32767";
      case LY_TYPE_INT32:
        return "-2147483648..2147483647";
      default:
        return "-9223372036854775808..9223372036854775807";
    }
  }
  std::string text;
  LY_ARRAY_COUNT_TYPE i;
  LY_ARRAY_FOR(range->parts, i) {
    const lysc_range::lysc_range_part& p = range->parts[i];
    const std::string min = unsignedType ? std::to_string(p.min_u64) : std::to_string(p.min_64);
    const std::string max = unsignedType ? std::to_string(p.max_u64) : std::to_string(p.max_64);
    text += (text.empty() ? "" : " | ") + (min == max ? min : min + ".." + max);
  }
  return text;
}

// The length limit of a string type as operators read it; empty without one.
std::string LengthText(const lysc_type* type) {
  const lysc_range* length = reinterpret_cast<const lysc_type_str*>(type)->length;
  if (!length || LY_ARRAY_COUNT(length->parts) != 1) return {};
  const uint64_t min = length->parts[0].min_u64, max = length->parts[0].max_u64;
  if (min == 0) return "at most " + std::to_string(max) + " bytes";
  if (max == UINT64_MAX) return "at least " + std::to_string(min) + " bytes";
  return std::to_string(min) + " to " + std::to_string(max) + " bytes";
}

bool LengthFits(const lysc_type* type, size_t size) {
  const lysc_range* length = reinterpret_cast<const lysc_type_str*>(type)->length;
  if (!length) return true;
  LY_ARRAY_COUNT_TYPE i;
  LY_ARRAY_FOR(length->parts, i) {
    if (size >= length->parts[i].min_u64 && size <= length->parts[i].max_u64) return true;
  }
  return false;
}

// Types that libyang implements with a plugin of their own (the inet addresses) name it.
bool PluginIs(const lysc_type* type, const char* name) {
  return type->plugin && type->plugin->id && std::strstr(type->plugin->id, name);
}

// The node's keypath below the module: "/router/pbr{7}/rule" from its steps.
std::string PathText(const std::vector<KeypathStep>& steps, size_t count) {
  std::string out;
  for (size_t i = 0; i < count; ++i) {
    out += "/" + steps[i].name;
    if (!steps[i].braces) continue;
    out += "{";
    for (size_t k = 0; k < steps[i].keys.size(); ++k) {
      out += (k ? " " : "") + QuoteKey(steps[i].keys[k]);
    }
    out += "}";
  }
  return out;
}

// Levenshtein distance, for "did you mean".
size_t Distance(std::string_view a, std::string_view b) {
  std::vector<size_t> row(b.size() + 1);
  for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i;
    for (size_t j = 1; j <= b.size(); ++j) {
      const size_t above = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] != b[j - 1])});
      diagonal = above;
    }
  }
  return row[b.size()];
}

std::string UnknownStep(const ly_ctx* ctx, const lysc_node* parent, const std::string& name) {
  std::vector<std::string> names;
  std::string closest;
  size_t best = 3;  // suggest only near misses
  const lys_module* module = yang::Module(ctx);
  for (const lysc_node* child = nullptr;
       (child = lys_getnext(child, parent, parent ? nullptr : module->compiled, 0));) {
    if (!(child->flags & LYS_CONFIG_W)) continue;
    names.emplace_back(child->name);
    const size_t d = Distance(name, child->name);
    if (d < best) {
      best = d;
      closest = child->name;
    }
  }
  std::string text = "no node \"" + name + "\" here";
  if (!closest.empty()) return text + "; did you mean " + closest + "?";
  if (names.empty()) return text;
  text += "; expected ";
  for (size_t i = 0; i < names.size(); ++i) text += (i ? ", " : "") + names[i];
  return text;
}

bool ValueFits(const lysc_node* node, std::string_view value) {
  return lyd_value_validate(node->module->ctx, node, value.data(), value.size(), nullptr, nullptr,
                            nullptr) == LY_SUCCESS;
}

}  // namespace

bool SplitKeypath(std::string_view path, std::vector<KeypathStep>* steps) {
  steps->clear();
  size_t i = 0;
  while (i < path.size()) {
    if (path[i] != '/') return false;
    ++i;
    KeypathStep step;
    while (i < path.size() && path[i] != '/' && path[i] != '{') step.name += path[i++];
    if (step.name.empty()) return false;
    if (i < path.size() && path[i] == '{') {
      step.braces = true;
      ++i;
      std::string key;
      bool quoted = false, any = false;
      for (;; ++i) {
        if (i == path.size()) return false;
        const char c = path[i];
        if (quoted && c == '\\' && i + 1 < path.size()) {
          key += path[++i];  // \" and \\ inside quotes
        } else if (c == '"') {
          quoted = !quoted;
          any = true;
        } else if (!quoted && (c == ' ' || c == '}')) {
          if (any || !key.empty()) step.keys.push_back(std::move(key));
          key.clear();
          any = false;
          if (c == '}') break;
        } else {
          key += c;
        }
      }
      ++i;
    }
    steps->push_back(std::move(step));
  }
  return !steps->empty();
}

const lysc_node* ChildNode(const ly_ctx* ctx, const lysc_node* parent, std::string_view name) {
  const lys_module* module = yang::Module(ctx);
  if (!module) return nullptr;
  return lys_find_child(parent, module, name.data(), name.size(), 0, 0);
}

const lysc_node* NodeAt(const ly_ctx* ctx, std::string_view keypath) {
  std::vector<KeypathStep> steps;
  if (!ctx || !SplitKeypath(keypath, &steps)) return nullptr;
  const lysc_node* node = nullptr;
  for (const KeypathStep& step : steps) {
    node = ChildNode(ctx, node, step.name);
    if (!node) return nullptr;
  }
  return node;
}

std::string CheckEdit(const ly_ctx* ctx, const mgmt::EditOperation& operation) {
  std::vector<KeypathStep> steps;
  if (!SplitKeypath(operation.path(), &steps)) return operation.path() + ": not a keypath";
  const bool set = operation.kind() == mgmt::EditOperation::SET;
  const lysc_node* node = nullptr;
  for (size_t i = 0; i < steps.size(); ++i) {
    const KeypathStep& step = steps[i];
    const std::string where = PathText(steps, i + 1);
    const lysc_node* child = ChildNode(ctx, node, step.name);
    if (!child || !(child->flags & LYS_CONFIG_W)) {
      return PathText(steps, i) + "/" + step.name + ": " + UnknownStep(ctx, node, step.name);
    }
    node = child;
    const bool last = i + 1 == steps.size();
    if (node->nodetype == LYS_LIST) {
      std::vector<const lysc_node*> keys;
      for (const lysc_node* k = lysc_node_child(node); k && lysc_is_key(k); k = k->next) {
        keys.push_back(k);
      }
      if (step.keys.size() != keys.size()) {
        return where + ": " + step.name + " entries are named by " + std::to_string(keys.size()) +
               (keys.size() == 1 ? " key: " : " keys: ") + step.name + "{" + keys[0]->name + "}";
      }
      for (size_t k = 0; k < keys.size(); ++k) {
        if (!ValueFits(keys[k], step.keys[k])) {
          return where + ": " + keys[k]->name + " " + ValueProblem(keys[k], step.keys[k]);
        }
      }
    } else if (node->nodetype == LYS_LEAFLIST) {
      if (step.keys.size() != 1) {
        return where + ": a " + step.name + " entry is written " + step.name + "{VALUE}";
      }
      if (!ValueFits(node, step.keys[0])) return where + ": " + ValueProblem(node, step.keys[0]);
    } else if (step.braces) {
      return where + ": " + step.name + " takes no key";
    }
    if (!last && !(node->nodetype & (LYS_CONTAINER | LYS_LIST))) {
      return where + ": " + step.name + " has nothing below it";
    }
  }
  if (!set) return {};
  const std::string where = PathText(steps, steps.size());
  if (node->nodetype == LYS_LEAF) {
    if (operation.value().empty() && TypeOf(node)->basetype != LY_TYPE_STRING) {
      return where + ": needs a value (" + TypeSummary(node) + ")";
    }
    if (lysc_is_key(node)) return where + ": a key is set in the entry's braces";
    if (!ValueFits(node, operation.value())) {
      return where + ": " + ValueProblem(node, operation.value());
    }
  } else if (!operation.value().empty()) {
    return where + ": takes no value; values are set on leaves";
  }
  return {};
}

std::string ValueProblem(const lysc_node* node, std::string_view value) {
  const lysc_type* type = TypeOf(node);
  const std::string v(value);
  if (!type) return "takes no value";
  if (IsUnsigned(type->basetype) || IsSigned(type->basetype)) {
    const bool number =
        !value.empty() && std::all_of(value.begin() + (value[0] == '-'), value.end(),
                                      [](char c) { return c >= '0' && c <= '9'; });
    return number ? v + " is out of range " + RangeText(type)
                  : v + " is not a number (" + RangeText(type) + ")";
  }
  if (PluginIs(type, "ipv4-prefix")) return v + " is not an IPv4 prefix";
  if (PluginIs(type, "ipv4-address")) return v + " is not an IPv4 address";
  if (PluginIs(type, "ipv6")) return v + " is not an IPv6 address";
  if (type->basetype == LY_TYPE_STRING) {
    if (!LengthFits(type, value.size())) return LengthText(type);
    const auto* str = reinterpret_cast<const lysc_type_str*>(type);
    LY_ARRAY_COUNT_TYPE i;
    LY_ARRAY_FOR(str->patterns, i) {
      if (str->patterns[i]->emsg) return str->patterns[i]->emsg;
    }
    return v + " does not have the form " + node->name + " takes";
  }
  const std::vector<std::string> names = EnumNames(node);
  if (!names.empty()) {
    std::string text = v + " is not one of ";
    for (size_t i = 0; i < names.size(); ++i) text += (i ? ", " : "") + names[i];
    return text;
  }
  return v + " is not a valid " + node->name;
}

std::string TypeSummary(const lysc_node* node) {
  const lysc_type* type = TypeOf(node);
  if (!type) return {};
  if (IsUnsigned(type->basetype) || IsSigned(type->basetype)) {
    return std::string(IntegerName(type->basetype)) + " " + RangeText(type);
  }
  if (PluginIs(type, "ipv4-prefix")) return "IPv4 prefix";
  if (PluginIs(type, "ipv4-address")) return "IPv4 address";
  const std::vector<std::string> names = EnumNames(node);
  if (!names.empty()) {
    std::string text;
    for (size_t i = 0; i < names.size(); ++i) text += (i ? " | " : "") + names[i];
    return text;
  }
  if (type->basetype == LY_TYPE_STRING) {
    const auto* str = reinterpret_cast<const lysc_type_str*>(type);
    if (LY_ARRAY_COUNT(str->patterns) == 1 && str->patterns[0]->emsg) {
      // An error-message that gives an example says best what is expected.
      return str->patterns[0]->emsg;
    }
    const std::string length = LengthText(type);
    return length.empty() ? "string" : "string, " + length;
  }
  return type->basetype == LY_TYPE_BOOL ? "true | false" : "value";
}

std::vector<std::string> EnumNames(const lysc_node* node) {
  const lysc_type* type = TypeOf(node);
  if (!type) return {};
  if (type->basetype == LY_TYPE_BOOL) return {"true", "false"};
  if (type->basetype != LY_TYPE_ENUM) return {};
  std::vector<std::string> names;
  const auto* en = reinterpret_cast<const lysc_type_enum*>(type);
  LY_ARRAY_COUNT_TYPE i;
  LY_ARRAY_FOR(en->enums, i) {
    names.emplace_back(en->enums[i].name);
  }
  return names;
}

std::string ReadableReason(const lysc_node* node, const std::string& reason) {
  if (!node || !TypeOf(node)) return reason;
  const bool raw = reason.find("does not conform to") != std::string::npos ||
                   reason.starts_with("Unsatisfied length") ||
                   reason.starts_with("Unsatisfied range") ||
                   reason.starts_with("Failed to convert IPv4");
  if (!raw) return reason;
  // The refused value is the first quoted text of libyang's message.
  const size_t open = reason.find('"');
  const size_t close = open == std::string::npos ? open : reason.find('"', open + 1);
  if (close == std::string::npos) return reason;
  return ValueProblem(node, std::string_view(reason).substr(open + 1, close - open - 1));
}

}  // namespace pbr::cli
