#include "element/mgmt/keypath_text.h"

#include <cstdlib>

namespace pbr::mgmt {

bool SplitKeypath(std::string_view text, std::vector<KeypathSegment>* out, std::string* error) {
  out->clear();
  if (text.empty() || text[0] != '/') {
    *error = "a path starts with /";
    return false;
  }
  out->reserve(8);
  size_t i = 0;
  while (i < text.size()) {
    ++i;  // the '/'
    KeypathSegment seg;
    while (i < text.size() && text[i] != '/' && text[i] != '[' && text[i] != '{') {
      seg.name += text[i++];
    }
    if (seg.name.empty()) {
      *error = "empty node name";
      return false;
    }
    if (i < text.size() && text[i] == '[') {
      const size_t close = text.find(']', i);
      if (close == std::string_view::npos) {
        *error = "unterminated [";
        return false;
      }
      const std::string num(text.substr(i + 1, close - i - 1));
      char* end = nullptr;
      seg.position = std::strtol(num.c_str(), &end, 10);
      if (num.empty() || *end || seg.position < 0) {
        *error = "bad position [" + num + "]";
        return false;
      }
      seg.positional = true;
      i = close + 1;
    } else if (i < text.size() && text[i] == '{') {
      seg.keyed = true;
      std::string key;
      bool quoted = false, inKey = false;
      for (++i;; ++i) {
        if (i >= text.size()) {
          *error = "unterminated {";
          return false;
        }
        const char c = text[i];
        if (quoted) {
          if (c == '\\' && i + 1 < text.size()) {
            key += text[++i];  // \" and \\ inside quotes
          } else if (c == '"') {
            quoted = false;
          } else {
            key += c;
          }
        } else if (c == '"') {
          quoted = inKey = true;
        } else if (c == ' ' || c == '}') {
          if (inKey) seg.keys.push_back(key);
          key.clear();
          inKey = false;
          if (c == '}') break;
        } else {
          key += c;
          inKey = true;
        }
      }
      ++i;
    }
    if (i < text.size() && text[i] != '/') {
      *error = "unexpected text after " + seg.name;
      return false;
    }
    seg.end = i;
    out->push_back(std::move(seg));
  }
  return true;
}

}  // namespace pbr::mgmt
