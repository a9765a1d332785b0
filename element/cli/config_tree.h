// The running configuration as the indented tree operators read. Each line is one step of a
// keypath, so that what is shown can be typed back into set and delete:
//   router
//     pbr{7}
//       rule
//         priority 10
//         match
//           interface{eth1}
// Containers show their name, list entries their name and keys in braces (the key leaves are
// not repeated), leaves their name and value, leaf-list entries their name and value in braces.
// List entries are shown in key order, everything else in schema order.
#pragma once

#include <libyang/libyang.h>

#include <string>
#include <string_view>

namespace pbr::cli {

// Appends the tree of the RFC 7951 document `json`, read against the schema in `ctx`, to
// *out. False with *error when the document does not fit the schema.
bool FormatConfigTree(ly_ctx* ctx, std::string_view json, std::string* out, std::string* error);

// The same configuration as the shell commands that build it, one a line, in the tree's order:
//   set /router/pbr{7}/rule/priority 10
//   set /router/pbr{7}/rule/match/interface{eth1}
// A list entry without other children is created by its path alone.
bool FormatConfigSet(ly_ctx* ctx, std::string_view json, std::string* out, std::string* error);

// The same configuration as an XML document, as `load` reads it.
bool FormatConfigXml(ly_ctx* ctx, std::string_view json, std::string* out, std::string* error);

}  // namespace pbr::cli
