#include "element/cli/status_table.h"

#include <nlohmann/json.hpp>

namespace pbr::cli {
namespace {

// Columns wide enough for the longest text each can hold ("65535", "255.255.255.255/32",
// "not-programmed"); a longer value still keeps one blank before the next column.
constexpr size_t kIdWidth = 7;
constexpr size_t kAddressWidth = 20;
constexpr size_t kActionWidth = 17;

void AppendCell(std::string* out, std::string_view text, size_t width) {
  out->append(text);
  out->append(text.size() < width ? width - text.size() : 1, ' ');
}

bool NameIs(const std::string& key, std::string_view name) {
  // RFC 7951 prefixes a member with its module where the module changes.
  return key == name || (key.size() > name.size() && key.ends_with(name) &&
                         key[key.size() - name.size() - 1] == ':');
}

// Follows the document {"pbr:router": {"pbr-status": [{"id": N, "rule": {...}}, ...]}} and
// writes each entry's row when its object closes.
class TableSax : public nlohmann::json::json_sax_t {
 public:
  explicit TableSax(std::string* out) : out_(out) {}

  bool null() override { return true; }
  bool boolean(bool) override { return true; }
  bool number_integer(number_integer_t value) override {
    if (depth_ == entryDepth_ && NameIs(key_, "id")) id_ = std::to_string(value);
    return true;
  }
  bool number_unsigned(number_unsigned_t value) override {
    if (depth_ == entryDepth_ && NameIs(key_, "id")) id_ = std::to_string(value);
    return true;
  }
  bool number_float(number_float_t, const string_t&) override { return true; }
  bool binary(binary_t&) override { return true; }

  bool string(string_t& value) override {
    if (depth_ == entryDepth_ && NameIs(key_, "id")) {
      id_ = value;  // 64-bit numbers are strings in RFC 7951; ids are not, but accept them
    } else if (depth_ == ruleDepth_) {
      if (NameIs(key_, "source-ip")) {
        source_ = value;
      } else if (NameIs(key_, "destination-ip")) {
        destination_ = value;
      } else if (NameIs(key_, "action")) {
        action_ = value;
      } else if (NameIs(key_, "hw-status")) {
        hwStatus_ = value;
      }
    }
    return true;
  }

  bool key(string_t& value) override {
    key_ = value;
    return true;
  }

  bool start_object(std::size_t) override {
    ++depth_;
    if (listDepth_ > 0 && depth_ == listDepth_ + 1) {
      entryDepth_ = depth_;
      id_ = "-";
      source_ = "-";
      destination_ = "-";
      action_ = "-";
      hwStatus_ = "-";
    } else if (entryDepth_ > 0 && depth_ == entryDepth_ + 1 && NameIs(key_, "rule")) {
      ruleDepth_ = depth_;
    }
    return true;
  }

  bool end_object() override {
    if (depth_ == entryDepth_) {
      AppendCell(out_, id_, kIdWidth);
      AppendCell(out_, source_, kAddressWidth);
      AppendCell(out_, destination_, kAddressWidth);
      AppendCell(out_, action_, kActionWidth);
      out_->append(hwStatus_);
      out_->push_back('\n');
      entryDepth_ = 0;
    } else if (depth_ == ruleDepth_) {
      ruleDepth_ = 0;
    }
    --depth_;
    return true;
  }

  bool start_array(std::size_t) override {
    ++depth_;
    if (depth_ == 3 && NameIs(key_, "pbr-status")) listDepth_ = depth_;
    return true;
  }

  bool end_array() override {
    if (depth_ == listDepth_) listDepth_ = 0;
    --depth_;
    return true;
  }

  bool parse_error(std::size_t, const std::string&, const nlohmann::json::exception& e) override {
    error_ = e.what();
    return false;
  }

  const std::string& error() const { return error_; }

 private:
  std::string* out_;
  int depth_ = 0;
  int listDepth_ = 0;   // depth of the list's array, 0 outside it
  int entryDepth_ = 0;  // depth of the entry being read, 0 between entries
  int ruleDepth_ = 0;   // depth of the entry's rule container
  std::string key_;
  std::string id_, source_, destination_, action_, hwStatus_;
  std::string error_;
};

}  // namespace

bool FormatStatusTable(std::string_view json, std::string* out, std::string* error) {
  const size_t start = out->size();
  // The rows are shorter than the JSON they come from: one allocation for the whole table.
  out->reserve(start + json.size() / 2 + 128);
  AppendCell(out, "ID", kIdWidth);
  AppendCell(out, "SOURCE", kAddressWidth);
  AppendCell(out, "DESTINATION", kAddressWidth);
  AppendCell(out, "ACTION", kActionWidth);
  out->append("HW-STATUS\n");
  TableSax sax(out);
  if (!nlohmann::json::sax_parse(json.begin(), json.end(), &sax)) {
    out->resize(start);
    *error = "the operational view is not readable JSON: " + sax.error();
    return false;
  }
  return true;
}

}  // namespace pbr::cli
