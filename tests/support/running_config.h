// The running configuration a daemon's handler reads in ReadInitialConfig, served by the element's
// own CDB functions: leaves are added by path to a management-protocol tree, which is then
// opened on a CDB socket as the framework does at attachment.
#pragma once

#include <memory>
#include <string>

#include "element/framework/cdb.h"
#include "platform/confd_lib.h"

namespace build {

class RunningConfig {
 public:
  ~RunningConfig() { Close(); }

  // Adds a leaf (another entry, for a leaf-list) at `path`, its value `text` of ConfD type
  // `type`. List entries are named by position, /router/pbr[1]/id, and made as needed.
  void Add(const std::string& path, confd_vtype type, const std::string& text);
  // "/router/pbr[N]": where Add puts the leaves of the rule at list position N.
  static std::string Rule(int position) { return "/router/pbr[" + std::to_string(position) + "]"; }

  const pbr::mgmt::Node& root() const { return root_; }

  // Serves the configuration as it is now on `sock`, until the next Open or Close.
  void Open(int sock);
  void Close();

 private:
  pbr::mgmt::Node root_;
  std::unique_ptr<vqconfd::detail::CdbSnapshot> snapshot_;
  int sock_ = -1;
};

}  // namespace build
