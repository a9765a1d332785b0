// Parsing of the per-category trace levels.
#include "element/middleware/trace_config.h"

#include <charconv>

namespace vqmw {
namespace {

std::string_view Trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  return s;
}

}  // namespace

TraceConfig TraceConfig::Parse(std::string_view text, std::vector<std::string>* errors) {
  TraceConfig config;
  while (!text.empty()) {
    size_t comma = text.find(',');
    std::string_view item = Trim(text.substr(0, comma));
    text = comma == std::string_view::npos ? std::string_view() : text.substr(comma + 1);
    if (item.empty()) continue;

    size_t eq = item.find('=');
    std::string_view name = Trim(item.substr(0, eq));
    std::string_view level_text = eq == std::string_view::npos ? "" : Trim(item.substr(eq + 1));
    int level = 0;
    auto [end, ec] =
        std::from_chars(level_text.data(), level_text.data() + level_text.size(), level);
    if (name.empty() || level_text.empty() || ec != std::errc() ||
        end != level_text.data() + level_text.size() || level < 0) {
      if (errors != nullptr)
        errors->push_back("ignored trace entry '" + std::string(item) +
                          "': expected <category>=<level> with a level >= 0");
      continue;
    }
    if (name == "*") {
      config.default_level_ = level;
    } else {
      config.levels_[std::string(name)] = level;
    }
  }
  return config;
}

int TraceConfig::MinLevel(std::string_view category) const {
  auto it = levels_.find(category);
  return it != levels_.end() ? it->second : default_level_;
}

}  // namespace vqmw
