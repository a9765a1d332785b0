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
    int level = kOff;
    std::errc ec{};
    const char* end = level_text.data() + level_text.size();
    if (level_text != "off") {
      auto parsed = std::from_chars(level_text.data(), end, level);
      ec = parsed.ec;
      if (parsed.ptr != end) ec = std::errc::invalid_argument;
    }
    if (name.empty() || level_text.empty() || ec != std::errc() || level < 0) {
      if (errors != nullptr)
        errors->push_back("ignored trace entry '" + std::string(item) +
                          "': expected <category>=<level> with a level >= 0 or off");
      continue;
    }
    if (name == "*") {
      config.default_level_ = level;
      config.has_default_ = true;
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

namespace vqmw {

void TraceConfig::Apply(const TraceConfig& change) {
  if (change.has_default_) {
    default_level_ = change.default_level_;
    has_default_ = true;
    levels_.clear();
  }
  for (const auto& [name, level] : change.levels_) levels_[name] = level;
}

std::string TraceConfig::Text(const std::vector<std::string>& also) const {
  auto level = [](int l) { return l == kOff ? std::string("off") : std::to_string(l); };
  std::map<std::string, int, std::less<>> all = levels_;
  for (const std::string& name : also) all.emplace(name, MinLevel(name));
  std::string text = "*=" + level(default_level_);
  for (const auto& [name, l] : all) text += "," + name + "=" + level(l);
  return text;
}

}  // namespace vqmw
