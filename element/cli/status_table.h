// The operational view of the rules as the table operators read: one line per rule with its id,
// source, destination, action and hardware status by name. Made from the server's RFC 7951
// JSON in one streaming pass, with fixed column widths, so that 65,536 rules cost one parse
// and one output buffer and no per-rule allocation beyond the row's text.
#pragma once

#include <string>
#include <string_view>

namespace pbr::cli {

// Appends the table for `json` (the answer to GetOperational) to *out: a header line, then one
// line per entry of the operational list in the document's order. An absent value (a rule
// without a source or destination match, a status code without a name) shows as "-". False with
// *error when the text is not such a document.
bool FormatStatusTable(std::string_view json, std::string* out, std::string* error);

}  // namespace pbr::cli
