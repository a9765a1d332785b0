// The management framework's binding, as a recorder of what it was given.
#pragma once

#include <string>
#include <vector>

#include "platform/vqconfd.h"

namespace fake {

struct Binding {
  vqmw_t* mw = nullptr;
  zlog_category_t* category = nullptr;
  std::string appName;
  std::vector<vqconfd::ConfigHandler*> configHandlers;
  size_t actionHandlers = 0;
  std::vector<vqconfd::DataHandler*> dataHandlers;
  int phase = -1;
  int options = -1;
  bool alive = false;
};

// The arguments of the last AppInterface built, and whether it still lives.
Binding& LastBinding();
// Makes the next AppInterface constructor throw std::runtime_error.
void FailNextBinding();

}  // namespace fake
