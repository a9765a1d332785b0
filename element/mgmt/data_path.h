// Paths of operator requests, written as ConfD keypaths without prefixes
// (/router/pbr{7}/rule/match/interface{eth1}), turned into libyang data paths
// (/pbr:router/pbr[id='7']/rule/match/interface[.='eth1']). Keys inside braces are separated by
// spaces; a key with spaces or braces is written in double quotes.
#pragma once

#include <libyang/libyang.h>

#include <string>
#include <string_view>

namespace pbr::mgmt {

struct DataPath {
  std::string path;                   // libyang path of the node
  const lysc_node* target = nullptr;  // its schema node
  // The first list entry on the way down, which a commit copies and validates as a unit;
  // empty when the path stops above any list entry.
  std::string entryPath;
  const lysc_node* entryList = nullptr;
  bool isEntry = false;  // the path ends at that entry
};

// False with *error when the path names no node of `module` or its keys do not fit.
bool ParseDataPath(const lys_module* module, std::string_view text, DataPath* out,
                   std::string* error);

}  // namespace pbr::mgmt
