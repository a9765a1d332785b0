#include "element/mgmt/data_path.h"

#include <vector>

#include "element/mgmt/keypath_text.h"

namespace pbr::mgmt {
namespace {

std::string Quote(const std::string& value) {
  const char q = value.find('\'') == std::string::npos ? '\'' : '"';
  return q + value + q;
}

}  // namespace

bool ParseDataPath(const lys_module* module, std::string_view text, DataPath* out,
                   std::string* error) {
  std::vector<KeypathSegment> segments;
  if (!SplitKeypath(text, &segments, error)) return false;
  const lysc_node* parent = nullptr;
  *out = DataPath{};
  for (size_t s = 0; s < segments.size(); ++s) {
    const KeypathSegment& seg = segments[s];
    if (seg.positional) {
      *error = "entries are named by their keys, as in " + seg.name + "{...}";
      return false;
    }
    const lysc_node* node = lys_find_child(parent, module, seg.name.c_str(), 0, 0, 0);
    if (!node || (node->nodetype & (LYS_RPC | LYS_ACTION | LYS_NOTIF))) {
      // Named as the request wrote it, not as the XPath it becomes.
      const size_t at = s == 0 ? 0 : segments[s - 1].end;
      *error =
          "no node \"" + seg.name + "\" at " + (at == 0 ? "/" : std::string(text.substr(0, at)));
      return false;
    }
    out->path += "/";
    if (!parent) out->path += std::string(module->name) + ":";
    out->path += seg.name;
    if (seg.keyed) {
      if (node->nodetype == LYS_LEAFLIST) {
        if (seg.keys.size() != 1) {
          *error = "a leaf-list entry has one value: " + seg.name;
          return false;
        }
        out->path += "[.=" + Quote(seg.keys[0]) + "]";
      } else if (node->nodetype == LYS_LIST) {
        size_t k = 0;
        for (const lysc_node* key = lysc_node_child(node); key && lysc_is_key(key);
             key = key->next, ++k) {
          if (k >= seg.keys.size()) break;
          out->path += std::string("[") + key->name + "=" + Quote(seg.keys[k]) + "]";
        }
        if (k != seg.keys.size() || k == 0) {
          *error = "wrong number of keys for list \"" + seg.name + "\"";
          return false;
        }
        if (out->entryPath.empty()) {
          out->entryPath = out->path;
          out->entryList = node;
          out->isEntry = s + 1 == segments.size();
        }
      } else {
        *error = "\"" + seg.name + "\" takes no keys";
        return false;
      }
    } else if (node->nodetype == LYS_LIST && s + 1 < segments.size()) {
      *error = "list \"" + seg.name + "\" needs its keys, as in " + seg.name + "{...}";
      return false;
    }
    parent = node;
    out->target = node;
  }
  return true;
}

}  // namespace pbr::mgmt
