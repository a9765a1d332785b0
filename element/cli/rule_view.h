// The rule view operators read: the operational view of each rule (status, source, destination,
// action, and a failure reason where the PBR manager gives one) joined with what is configured
// for it (priority, ingress interfaces, description), filtered, ordered and counted. Both
// documents are read with streaming parses, so that 65,536 rules cost two parses and one row
// per rule.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace pbr::cli {

// One rule as shown. An empty text is an absent value.
struct RuleRow {
  uint32_t id = 0;
  std::optional<uint32_t> priority;
  std::vector<std::string> interfaces;
  std::string source, destination, action, hwStatus, reason, description;
};

// Which rules to show and in which order. Filters combine: a rule shows when it passes each.
struct RuleQuery {
  std::optional<std::string> status;     // hardware status name
  std::optional<std::string> interface;  // one of the rule's ingress interfaces
  std::optional<std::string> nextHop;    // the rule's next-hop address
  bool byPriority = false;               // evaluation order (priority, then id); else by id
};

// Reads the operational view (RFC 7951 JSON, the answer to GetOperational) into *rows, in
// id order. False with *error when the text is not such a document.
bool ReadRuleStatus(std::string_view json, std::vector<RuleRow>* rows, std::string* error);

// Completes *rows (in id order) with the priority, interfaces and description that the running
// configuration `json` holds for their ids.
bool JoinRuleConfig(std::string_view json, std::vector<RuleRow>* rows, std::string* error);

// Drops the rows the query filters out and orders the rest.
void SelectRules(const RuleQuery& query, std::vector<RuleRow>* rows);

struct RuleCounts {
  size_t total = 0, programmed = 0, failed = 0, notProgrammed = 0;
};
RuleCounts CountRules(const std::vector<RuleRow>& rows);

// Appends `text` with its control characters as escapes (\n, \x1b), so that a value cannot
// break a row of a table or drive the terminal; returns the length appended.
size_t AppendPrintable(std::string* out, std::string_view text);

// Appends the table: a header, one line per row, then a summary line; `of` is the number of
// rules before filtering (named when rows were left out). A REASON column appears when any row
// has a reason.
void FormatRuleTable(const std::vector<RuleRow>& rows, size_t of, std::string* out);

// Appends the rows as the module's operational list in RFC 7951 JSON, one entry a line:
// {"pbr:router": {"pbr-status": [{"id": 7, "rule": {"priority": 10, ...}}]}}; absent values are
// left out, interfaces are joined by commas.
void FormatRuleJson(const std::vector<RuleRow>& rows, std::string* out);

}  // namespace pbr::cli
