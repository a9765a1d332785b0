#include "element/cli/rule_view.h"

#include <algorithm>
#include <charconv>
#include <initializer_list>
#include <nlohmann/json.hpp>

namespace pbr::cli {

size_t AppendPrintable(std::string* out, std::string_view text) {
  const size_t start = out->size();
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte != 0x7f) {
      out->push_back(c);
    } else if (c == '\n' || c == '\r' || c == '\t') {
      out->append(c == '\n' ? "\\n" : c == '\r' ? "\\r" : "\\t");
    } else {
      static constexpr char kHex[] = "0123456789abcdef";
      out->append({'\\', 'x', kHex[byte >> 4], kHex[byte & 15]});
    }
  }
  return out->size() - start;
}

namespace {

// Columns wide enough for the longest text each usually holds ("65535", "4294967295",
// "255.255.255.255/32", "not-programmed"); a longer value still keeps one blank before the next.
constexpr size_t kIdWidth = 7;
constexpr size_t kPriorityWidth = 11;
constexpr size_t kInterfacesWidth = 16;
constexpr size_t kAddressWidth = 20;
constexpr size_t kActionWidth = 17;
constexpr size_t kStatusWidth = 16;
constexpr size_t kDescriptionWidth = 34;  // 32 bytes and a blank

void AppendCell(std::string* out, std::string_view text, size_t width) {
  const size_t length = AppendPrintable(out, text.empty() ? "-" : text);
  out->append(length < width ? width - length : 1, ' ');
}

// RFC 7951 prefixes a member with its module where the module changes.
std::string_view LocalName(std::string_view key) {
  const size_t colon = key.find(':');
  return colon == std::string_view::npos ? key : key.substr(colon + 1);
}

bool ParseUint32(std::string_view text, uint32_t* value) {
  const char* end = text.data() + text.size();
  auto [ptr, ec] = std::from_chars(text.data(), end, *value);
  return ec == std::errc() && ptr == end && !text.empty();
}

// A streaming reader that knows, for every value, the member names leading to it: path()[d] is
// the name the container at depth d+1 was entered by ("" for an element of an array).
class PathSax : public nlohmann::json::json_sax_t {
 public:
  bool null() override { return true; }
  bool boolean(bool) override { return true; }
  bool number_integer(number_integer_t value) override { return Scalar(std::to_string(value)); }
  bool number_unsigned(number_unsigned_t value) override { return Scalar(std::to_string(value)); }
  bool number_float(number_float_t, const string_t& text) override { return Scalar(text); }
  bool binary(binary_t&) override { return true; }
  bool string(string_t& value) override { return Scalar(value); }
  bool key(string_t& value) override {
    key_ = LocalName(value);
    return true;
  }
  bool start_object(std::size_t) override {
    Enter(false);
    Opened();
    return true;
  }
  bool end_object() override {
    Closing();
    Leave();
    return true;
  }
  bool start_array(std::size_t) override {
    Enter(true);
    return true;
  }
  bool end_array() override {
    Leave();
    return true;
  }
  bool parse_error(std::size_t, const std::string&, const nlohmann::json::exception& e) override {
    error_ = e.what();
    return false;
  }
  const std::string& error() const { return error_; }

 protected:
  // A scalar at path(), the member `name` of an object ("" for an element of an array).
  virtual void Value(std::string_view name, std::string_view value) = 0;
  // The object at path() was opened, or is about to close.
  virtual void Opened() {}
  virtual void Closing() {}

  bool At(std::initializer_list<std::string_view> names) const {
    return path_.size() == names.size() && std::equal(names.begin(), names.end(), path_.begin());
  }

 private:
  bool Scalar(std::string_view value) {
    if (!array_.empty()) Value(array_.back() ? std::string_view() : key_, value);
    return true;
  }
  void Enter(bool array) {
    path_.emplace_back(array_.empty() || array_.back() ? std::string() : key_);
    array_.push_back(array);
  }
  void Leave() {
    path_.pop_back();
    array_.pop_back();
  }

  std::string key_;
  std::vector<std::string> path_;
  std::vector<bool> array_;  // per depth: the container is an array
  std::string error_;
};

// {"pbr:router": {"pbr-status": [{"id": N, "rule": {...}}, ...]}}
class StatusSax : public PathSax {
 public:
  explicit StatusSax(std::vector<RuleRow>* rows) : rows_(rows) {}

 protected:
  void Opened() override {
    if (At({"", "router", "pbr-status", ""})) row_ = RuleRow{};
  }
  void Closing() override {
    if (At({"", "router", "pbr-status", ""})) rows_->push_back(std::move(row_));
  }
  void Value(std::string_view name, std::string_view value) override {
    if (At({"", "router", "pbr-status", ""})) {
      if (name == "id") ParseUint32(value, &row_.id);
      return;
    }
    if (!At({"", "router", "pbr-status", "", "rule"})) return;
    if (name == "source-ip") {
      row_.source = value;
    } else if (name == "destination-ip") {
      row_.destination = value;
    } else if (name == "action") {
      row_.action = value;
    } else if (name == "hw-status") {
      row_.hwStatus = value;
    } else if (name == "hw-reason") {
      row_.reason = value;
    } else if (name == "description") {
      row_.description = value;
    } else if (name == "priority") {
      uint32_t priority = 0;
      if (ParseUint32(value, &priority)) row_.priority = priority;
    } else if (name == "interfaces" && !value.empty()) {
      row_.interfaces = {std::string(value)};
    }
  }

 private:
  std::vector<RuleRow>* rows_;
  RuleRow row_;
};

// {"pbr:router": {"pbr": [{"id": N, "rule": {"priority": P, "description": D,
//  "match": {"interface": [...]}}}, ...]}}; each entry goes to the row with its id.
class ConfigSax : public PathSax {
 public:
  explicit ConfigSax(std::vector<RuleRow>* rows) : rows_(rows) {}

 protected:
  void Opened() override {
    if (At({"", "router", "pbr", ""})) row_ = nullptr;
  }
  void Value(std::string_view name, std::string_view value) override {
    if (At({"", "router", "pbr", ""})) {
      uint32_t id = 0;
      if (name != "id" || !ParseUint32(value, &id)) return;
      const auto it = std::lower_bound(rows_->begin(), rows_->end(), id,
                                       [](const RuleRow& r, uint32_t v) { return r.id < v; });
      row_ = it != rows_->end() && it->id == id ? &*it : nullptr;
      // Interfaces come from the configuration alone, where each is its own value.
      if (row_) row_->interfaces.clear();
      return;
    }
    if (!row_) return;
    if (At({"", "router", "pbr", "", "rule"})) {
      uint32_t priority = 0;
      if (name == "priority" && ParseUint32(value, &priority)) row_->priority = priority;
      if (name == "description") row_->description = value;
    } else if (At({"", "router", "pbr", "", "rule", "match", "interface"})) {
      row_->interfaces.emplace_back(value);
    }
  }

 private:
  std::vector<RuleRow>* rows_;
  RuleRow* row_ = nullptr;  // the row of the entry being read; null when there is none
};

bool Parse(std::string_view json, PathSax* sax, std::string_view what, std::string* error) {
  if (nlohmann::json::sax_parse(json.begin(), json.end(), sax)) return true;
  *error = std::string(what) + " is not readable JSON: " + sax->error();
  return false;
}

std::string Joined(const std::vector<std::string>& words) {
  std::string out;
  for (const std::string& w : words) out += (out.empty() ? "" : ",") + w;
  return out;
}

}  // namespace

bool ReadRuleStatus(std::string_view json, std::vector<RuleRow>* rows, std::string* error) {
  StatusSax sax(rows);
  if (!Parse(json, &sax, "the operational view", error)) return false;
  std::stable_sort(rows->begin(), rows->end(),
                   [](const RuleRow& a, const RuleRow& b) { return a.id < b.id; });
  return true;
}

bool JoinRuleConfig(std::string_view json, std::vector<RuleRow>* rows, std::string* error) {
  ConfigSax sax(rows);
  return Parse(json, &sax, "the running configuration", error);
}

void SelectRules(const RuleQuery& query, std::vector<RuleRow>* rows) {
  std::erase_if(*rows, [&](const RuleRow& r) {
    if (query.status && r.hwStatus != *query.status) return true;
    if (query.nextHop && r.action != *query.nextHop) return true;
    return query.interface && std::find(r.interfaces.begin(), r.interfaces.end(),
                                        *query.interface) == r.interfaces.end();
  });
  if (query.byPriority) {
    // Rules without a priority (gone from the configuration meanwhile) come last.
    std::stable_sort(rows->begin(), rows->end(), [](const RuleRow& a, const RuleRow& b) {
      const uint64_t pa = a.priority ? *a.priority : UINT64_MAX;
      const uint64_t pb = b.priority ? *b.priority : UINT64_MAX;
      return pa != pb ? pa < pb : a.id < b.id;
    });
  }
}

RuleCounts CountRules(const std::vector<RuleRow>& rows) {
  RuleCounts counts;
  counts.total = rows.size();
  for (const RuleRow& r : rows) {
    counts.programmed += r.hwStatus == "programmed";
    counts.failed += r.hwStatus == "failed";
    counts.notProgrammed += r.hwStatus == "not-programmed";
  }
  return counts;
}

void FormatRuleTable(const std::vector<RuleRow>& rows, size_t of, std::string* out) {
  const bool reasons =
      std::any_of(rows.begin(), rows.end(), [](const RuleRow& r) { return !r.reason.empty(); });
  out->reserve(out->size() + (rows.size() + 2) * (reasons ? 200 : 160));
  AppendCell(out, "ID", kIdWidth);
  AppendCell(out, "PRIORITY", kPriorityWidth);
  AppendCell(out, "INTERFACES", kInterfacesWidth);
  AppendCell(out, "SOURCE", kAddressWidth);
  AppendCell(out, "DESTINATION", kAddressWidth);
  AppendCell(out, "ACTION", kActionWidth);
  AppendCell(out, "HW-STATUS", kStatusWidth);
  out->append(reasons ? "DESCRIPTION                       REASON\n" : "DESCRIPTION\n");
  char number[16];
  for (const RuleRow& r : rows) {
    AppendCell(out, std::string_view(number, std::to_chars(number, number + 16, r.id).ptr - number),
               kIdWidth);
    AppendCell(
        out,
        r.priority
            ? std::string_view(number, std::to_chars(number, number + 16, *r.priority).ptr - number)
            : std::string_view(),
        kPriorityWidth);
    AppendCell(out, r.interfaces.size() == 1 ? r.interfaces[0] : Joined(r.interfaces),
               kInterfacesWidth);
    AppendCell(out, r.source, kAddressWidth);
    AppendCell(out, r.destination, kAddressWidth);
    AppendCell(out, r.action, kActionWidth);
    AppendCell(out, r.hwStatus, kStatusWidth);
    if (reasons) {
      AppendCell(out, r.description, kDescriptionWidth);
      AppendPrintable(out, r.reason.empty() ? "-" : r.reason);
    } else {
      AppendPrintable(out, r.description.empty() ? "-" : r.description);
    }
    out->push_back('\n');
  }
  const RuleCounts c = CountRules(rows);
  *out += std::to_string(c.total) + (c.total == 1 ? " rule" : " rules");
  if (of != c.total) *out += " of " + std::to_string(of);
  *out += ": " + std::to_string(c.programmed) + " programmed, " + std::to_string(c.failed) +
          " failed, " + std::to_string(c.notProgrammed) + " not programmed\n";
}

void FormatRuleJson(const std::vector<RuleRow>& rows, std::string* out) {
  // The module's own shape of the operational list, so that what reads the server's view reads
  // this too; the joined values fill the leaves the module has for them.
  out->append("{\n  \"pbr:router\": {\n    \"pbr-status\": [");
  bool first = true;
  for (const RuleRow& r : rows) {
    nlohmann::ordered_json rule = nlohmann::ordered_json::object();
    if (r.priority) rule["priority"] = *r.priority;
    const std::pair<const char*, std::string> texts[] = {{"source-ip", r.source},
                                                         {"destination-ip", r.destination},
                                                         {"interfaces", Joined(r.interfaces)},
                                                         {"action", r.action},
                                                         {"hw-status", r.hwStatus},
                                                         {"hw-reason", r.reason},
                                                         {"description", r.description}};
    for (const auto& [name, text] : texts) {
      if (!text.empty()) rule[name] = text;
    }
    out->append(first ? "\n      {\"id\": " : ",\n      {\"id\": ");
    out->append(std::to_string(r.id));
    out->append(", \"rule\": ");
    out->append(rule.dump());
    out->push_back('}');
    first = false;
  }
  out->append(first ? "]\n  }\n}\n" : "\n    ]\n  }\n}\n");
}

}  // namespace pbr::cli
