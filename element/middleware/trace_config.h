// Which zlog levels are enabled per category: PBR_ELEMENT_TRACE, for example
// "pbr-app=10,pbr-app_cache=10" or "*=10". A record is written when its level is at least its
// category's minimum; a category named nowhere takes the "*" entry, and without one it is off.
// A level of "off" turns a category off.
#pragma once

#include <climits>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace vqmw {

class TraceConfig {
 public:
  static constexpr int kOff = INT_MAX;

  // Parses the text of PBR_ELEMENT_TRACE; each malformed entry is skipped and described in
  // `errors`.
  static TraceConfig Parse(std::string_view text, std::vector<std::string>* errors);

  // The lowest level written on `category`; kOff when nothing is.
  int MinLevel(std::string_view category) const;

  // Applies a change at run time: its categories take their new levels, and a "*" entry in it
  // sets every category, the ones named before included.
  void Apply(const TraceConfig& change);

  // "*=off,pbr-app=10": the default and each category named or in `also`, in the syntax Parse
  // reads.
  std::string Text(const std::vector<std::string>& also = {}) const;

 private:
  int default_level_ = kOff;
  bool has_default_ = false;
  std::map<std::string, int, std::less<>> levels_;
};

}  // namespace vqmw
