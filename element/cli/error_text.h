// Refusals as operators read them: "WHERE: REASON", the node in the keypath form they type.
#pragma once

#include <libyang/libyang.h>

#include <string>
#include <string_view>

#include "element/mgmt/mgmt.pb.h"

namespace pbr::cli {

// A node's path in keypath form, without module prefixes, keys in braces, and without the
// choice and case steps of a schema path:
//   /pbr:router/pbr[id='7']/rule/match/interface[.='eth1'] ->
//   /router/pbr{7}/rule/match/interface{eth1}
//   /pbr:router/pbr/rule/match/source/ipv4-address/address/mask/mask/ip (a schema path)
//     -> /router/pbr/rule/match/source/ipv4-address/mask/ip
// Choices and cases are known from `schema`; with null, or for a path it does not know, they
// stay. Text that is not a path comes back as it is.
std::string KeypathOf(std::string_view path, const ly_ctx* schema);

// "WHERE: REASON" for a refusal. WHERE is the node the server names (libyang's "Data
// location", "Schema location" or a plain path), after `file` and the line in it when the
// refused input was a file. Just the reason when nothing is known.
std::string ErrorText(const mgmt::Error& error, const ly_ctx* schema, std::string_view file = {});

}  // namespace pbr::cli
