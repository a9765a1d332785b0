// What the module knows about keypaths, for the shell's help: which nodes exist where, what a
// value must look like (checked with libyang's own type validation), and refusals worded for
// operators ("next-hop/ip: 300.1.1.1 is not an IPv4 address", "description: at most 32 bytes")
// instead of libyang's raw regular expressions.
#pragma once

#include <libyang/libyang.h>

#include <string>
#include <string_view>
#include <vector>

#include "element/mgmt/mgmt.pb.h"

namespace pbr::cli {

// One step of a keypath: `pbr{7}` is name "pbr" with keys {"7"}.
struct KeypathStep {
  std::string name;
  std::vector<std::string> keys;
  bool braces = false;  // the step had a key block, even an empty one
};

// Splits a keypath ("/router/pbr{7}/rule") into steps; false when it is not one.
bool SplitKeypath(std::string_view path, std::vector<KeypathStep>* steps);

// The data node a step names below `parent` (null: the module's top); choices and cases are
// looked through, as keypaths leave them out. Null when there is none.
const lysc_node* ChildNode(const ly_ctx* ctx, const lysc_node* parent, std::string_view name);

// The schema node a keypath names (its keys are not looked at); null when there is none.
const lysc_node* NodeAt(const ly_ctx* ctx, std::string_view keypath);

// Checks one set or delete against the module: every step exists, keys and the value are valid
// for their types, and set gives a value exactly where a leaf is. Empty when it is fine, else
// "PATH: REASON" with PATH the keypath up to the refused step.
std::string CheckEdit(const ly_ctx* ctx, const mgmt::EditOperation& operation);

// Why `value` does not fit leaf (or leaf-list) `node`, worded for people: the module's
// error-message where it has one, the limit for lengths and ranges, the kind of address.
std::string ValueProblem(const lysc_node* node, std::string_view value);

// A short description of what a leaf takes: "uint32 0..4294967295", "IPv4 address",
// "string, at most 32 bytes", "programmed | failed | not-programmed".
std::string TypeSummary(const lysc_node* node);

// The names of a leaf's enumeration (or true and false for a boolean); empty for other types.
std::vector<std::string> EnumNames(const lysc_node* node);

// libyang's reason for refusing the value of leaf `node` reworded with ValueProblem when it is
// one of its unreadable ones (a pattern or a length); else unchanged.
std::string ReadableReason(const lysc_node* node, const std::string& reason);

}  // namespace pbr::cli
