// Callpoints the element serves itself inside a daemon's process, beside the daemon's own: the
// PBR manager's per-rule status reasons (hw-reason of the operational view), answered from
// pbr::RuleReasons without involving the daemon.
#pragma once

#include <string>
#include <vector>

#include "element/mgmt/mgmt.pb.h"

namespace vqconfd::detail {

// The element callpoints this process serves: the reasons one once a PBR manager backend runs
// here (it is built before the framework attaches).
std::vector<std::string> ElementCallpoints();

// Answers `request` for an element callpoint into `reply`; false when `request` names none.
bool AnswerElementCallpoint(const pbr::mgmt::GetObjects& request, pbr::mgmt::DataReply* reply);

}  // namespace vqconfd::detail
