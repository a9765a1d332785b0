#include "element/cli/error_text.h"

#include <vector>

#include "element/cli/command.h"
#include "element/cli/schema_help.h"

namespace pbr::cli {
namespace {

struct Location {
  std::string path;
  std::string line;
};

// libyang writes a location as `Data location "P".`, `Schema location "P", line number N.`,
// `Path "P".` or `Line number N.`; the server also names nodes by their plain path.
Location ParseLocation(std::string_view text) {
  Location where;
  for (std::string_view lead : {"Data location \"", "Schema location \"", "Path \""}) {
    if (!text.starts_with(lead)) continue;
    text.remove_prefix(lead.size());
    const size_t line = text.rfind("\", line number ");
    if (line != std::string_view::npos) {
      where.path = text.substr(0, line);
      where.line = text.substr(line + 15);
    } else {
      where.path = text.substr(0, text.rfind('"'));
    }
    if (where.line.ends_with('.')) where.line.pop_back();
    return where;
  }
  if (text.starts_with("Line number ")) {
    where.line = text.substr(12);
    if (where.line.ends_with('.')) where.line.pop_back();
    return where;
  }
  where.path = text;
  return where;
}

// The schema node for a step, choices and cases included, below `parent` (null: the top).
const lysc_node* FindStep(const ly_ctx* schema, const lysc_node* parent, std::string_view prefix,
                          std::string_view name, const lys_module** module) {
  if (!schema) return nullptr;
  if (!prefix.empty()) *module = ly_ctx_get_module_implemented(schema, std::string(prefix).c_str());
  if (!*module) return nullptr;
  return lys_find_child(parent, *module, name.data(), name.size(), 0,
                        LYS_GETNEXT_WITHCHOICE | LYS_GETNEXT_WITHCASE);
}

}  // namespace

std::string KeypathOf(std::string_view path, const ly_ctx* schema) {
  const std::string original(path);
  if (path.empty() || path[0] != '/') return original;
  std::string out;
  const lys_module* module = nullptr;
  const lysc_node* node = nullptr;
  bool known = true;  // every step so far found in the schema
  size_t i = 0;
  while (i < path.size()) {
    if (path[i] != '/') return original;
    ++i;
    const size_t nameStart = i;
    while (i < path.size() && path[i] != '/' && path[i] != '[') ++i;
    std::string_view name = path.substr(nameStart, i - nameStart);
    std::string_view prefix;
    if (const size_t colon = name.find(':'); colon != std::string_view::npos) {
      prefix = name.substr(0, colon);
      name.remove_prefix(colon + 1);
    }
    if (name.empty()) return original;
    std::vector<std::string> keys;
    while (i < path.size() && path[i] == '[') {
      // [name='value'], [name="value"] or [.='value']; positions are not keys.
      const size_t eq = path.find('=', i);
      if (eq == std::string_view::npos || eq + 1 >= path.size()) return original;
      const char quote = path[eq + 1];
      if (quote != '\'' && quote != '"') return original;
      const size_t close = path.find(quote, eq + 2);
      if (close == std::string_view::npos || close + 1 >= path.size() || path[close + 1] != ']') {
        return original;
      }
      keys.emplace_back(path.substr(eq + 2, close - eq - 2));
      i = close + 2;
    }
    if (known) {
      node = FindStep(schema, node, prefix, name, &module);
      known = node != nullptr;
      if (known && (node->nodetype & (LYS_CHOICE | LYS_CASE))) continue;
    }
    out += '/';
    out += name;
    if (!keys.empty()) {
      out += '{';
      for (size_t k = 0; k < keys.size(); ++k) out += (k ? " " : "") + QuoteKey(keys[k]);
      out += '}';
    }
  }
  return out;
}

std::string ErrorText(const mgmt::Error& error, const ly_ctx* schema, std::string_view file) {
  const Location where = ParseLocation(error.path());
  std::string text(file);
  if (!text.empty() && !where.line.empty()) text += ":" + where.line;
  if (text.empty() && !where.line.empty()) text = "line " + where.line;
  std::string reason = error.message().empty() ? "refused" : error.message();
  if (!where.path.empty()) {
    const std::string keypath = KeypathOf(where.path, schema);
    text += (text.empty() ? "" : ": ") + keypath;
    reason = ReadableReason(NodeAt(schema, keypath), reason);
  }
  return text.empty() ? reason : text + ": " + reason;
}

}  // namespace pbr::cli
