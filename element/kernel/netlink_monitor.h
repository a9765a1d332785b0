// Routing-netlink notifications (links, IPv4 addresses, routes and rules) on the middleware loop.
//
// Notifications caused by our own requests are dropped in the kernel by a socket filter on the
// sender's port id, so that bulk installs do not flood the socket. A large receive buffer absorbs
// bursts of foreign changes; if it still overflows, the kernel drops notifications and the owner
// is told to resynchronise by dumping.
//
// Single-threaded: callbacks run on the loop's thread. The owner destroys the monitor outside its
// callbacks.
#pragma once

#include <libmnl/libmnl.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "element/middleware/loop.h"

namespace pbr::element {

class NetlinkMonitor {
 public:
  using Notify = std::function<void(const nlmsghdr* nlh)>;
  using Overrun = std::function<void()>;

  NetlinkMonitor(vqmw_t* mw, Notify notify, Overrun overrun);
  ~NetlinkMonitor();
  NetlinkMonitor(const NetlinkMonitor&) = delete;
  NetlinkMonitor& operator=(const NetlinkMonitor&) = delete;

  // Subscribes; notifications stamped with `own_port` (our request socket) are filtered out.
  // 0 or a negative errno.
  int Open(uint32_t own_port);

 private:
  void OnReadable();

  vqmw_t* mw_;
  Notify notify_;
  Overrun overrun_;
  mnl_socket* socket_ = nullptr;
  std::unique_ptr<vqmw::Source> watch_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
  std::vector<char> receive_;
};

}  // namespace pbr::element
