// Plays commits and attachments into a configuration handler the way the framework does.
#pragma once

#include <vector>

#include "platform/confd_lib.h"
#include "platform/vqconfd.h"

namespace fake {

struct Change {
  confd_hkeypath_t kp;
  confd_iter_op op;
  confd_value_t value;  // the new value; not passed for MOP_DELETED
};

// StartCommit; the subscription callback once per change in the given (ConfD diff) order,
// skipping the descendants of a node whose callback answered ITER_CONTINUE; ApplyCommitConfig.
// Returns the callback results of the changes delivered.
std::vector<confd_iter_ret> PlayCommit(vqconfd::ConfigHandler& handler,
                                       const std::vector<Change>& changes);

}  // namespace fake
