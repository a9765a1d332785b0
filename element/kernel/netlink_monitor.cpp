#include "element/kernel/netlink_monitor.h"

#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/rtnetlink.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstddef>

namespace pbr::element {
namespace {

constexpr int kReceiveBufferBytes = 32 << 20;
constexpr int kReadsPerCallback = 32;

// Classic BPF: drop a datagram whose (first) header carries `port` as sender, accept the rest.
// Loads are big-endian, so the constant is the port's bytes read that way.
int FilterOwnPort(int fd, uint32_t port) {
  sock_filter code[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(nlmsghdr, nlmsg_pid)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ntohl(port), 0, 1),
      BPF_STMT(BPF_RET | BPF_K, 0),
      BPF_STMT(BPF_RET | BPF_K, 0xffffffff),
  };
  sock_fprog program{static_cast<unsigned short>(sizeof code / sizeof code[0]), code};
  return setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program);
}

}  // namespace

NetlinkMonitor::NetlinkMonitor(vqmw_t* mw, Notify notify, Overrun overrun)
    : mw_(mw), notify_(std::move(notify)), overrun_(std::move(overrun)), receive_(64 << 10) {}

NetlinkMonitor::~NetlinkMonitor() {
  *alive_ = false;
  watch_.reset();
  if (socket_) mnl_socket_close(socket_);
}

int NetlinkMonitor::Open(uint32_t own_port) {
  socket_ = mnl_socket_open2(NETLINK_ROUTE, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (!socket_) return -errno;
  int fd = mnl_socket_get_fd(socket_);
  int size = kReceiveBufferBytes;
  if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) < 0)
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
  if (own_port) FilterOwnPort(fd, own_port);
  unsigned groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV4_RULE;
  if (mnl_socket_bind(socket_, groups, MNL_SOCKET_AUTOPID) < 0) {
    int error = -errno;
    mnl_socket_close(socket_);
    socket_ = nullptr;
    return error;
  }
  watch_ = vqmw::WatchFd(mw_, fd, EPOLLIN, [this](uint32_t) { OnReadable(); });
  return 0;
}

void NetlinkMonitor::OnReadable() {
  auto alive = std::weak_ptr<bool>(alive_);
  for (int i = 0; i < kReadsPerCallback; ++i) {
    ssize_t n = mnl_socket_recvfrom(socket_, receive_.data(), receive_.size());
    if (n < 0) {
      if (errno == ENOBUFS) {
        overrun_();
        if (alive.expired()) return;
        continue;
      }
      return;  // EAGAIN: drained
    }
    int len = static_cast<int>(n);
    for (auto* nlh = reinterpret_cast<const nlmsghdr*>(receive_.data()); mnl_nlmsg_ok(nlh, len);
         nlh = mnl_nlmsg_next(nlh, &len)) {
      notify_(nlh);
      if (alive.expired()) return;
    }
  }
}

}  // namespace pbr::element
