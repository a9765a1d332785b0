// Data trees as RFC 7951 JSON text, or as XML; and the escaping of text for either.
#pragma once

#include <libyang/libyang.h>

#include <string>
#include <string_view>

namespace pbr::mgmt {

// `tree` with its siblings; "{}" for no tree. `compact` leaves out indentation and newlines.
std::string PrintJson(const lyd_node* tree, bool compact = false);
// `tree` with its siblings as XML without whitespace; "" for no tree.
std::string PrintXml(const lyd_node* tree);

// Appends `text` as XML character data (&, < and > escaped).
void AppendXmlText(std::string_view text, std::string* out);
// Appends `text` as a JSON string, quotes included.
void AppendJsonString(std::string_view text, std::string* out);

}  // namespace pbr::mgmt
