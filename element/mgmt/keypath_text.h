// Keypaths as text, the form operator requests and CDB reads use: /router/pbr{7}/rule/priority
// names an entry by its keys (separated by spaces; a key with spaces, braces or quotes in double
// quotes, where \" and \\ stand for " and \), /router/pbr[3]/id by its position from 0.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace pbr::mgmt {

struct KeypathSegment {
  std::string name;
  bool keyed = false;
  std::vector<std::string> keys;
  bool positional = false;
  long position = 0;
  size_t end = 0;  // offset in the text just past this segment
};

// False with *error when the text is not a keypath.
bool SplitKeypath(std::string_view text, std::vector<KeypathSegment>* out, std::string* error);

}  // namespace pbr::mgmt
