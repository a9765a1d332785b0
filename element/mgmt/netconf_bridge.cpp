#include "element/mgmt/netconf_bridge.h"

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "element/mgmt/server.h"

namespace pbr::mgmt {

NetconfBridge::NetconfBridge(Server* server, const std::string& user, const std::atomic<bool>* stop,
                             uint32_t netconfSession)
    : stop_(stop) {
  int fds[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds) != 0) return;
  fd_ = fds[0];
  server->AdoptSession(fds[1], user, "netconf", netconfSession);
}

NetconfBridge::~NetconfBridge() {
  // The server ends the session, and releases its locks and candidate, when it sees the close.
  if (fd_ >= 0) ::close(fd_);
}

bool NetconfBridge::Call(ClientMessage request, Response* response, std::string* error,
                         std::chrono::milliseconds timeout) {
  uint64_t id = 0;
  return Send(std::move(request), &id, error) && Receive(id, response, error, timeout);
}

bool NetconfBridge::Send(ClientMessage request, uint64_t* id, std::string* error) {
  if (fd_ < 0) {
    *error = "no connection to the management server";
    return false;
  }
  *id = nextId_++;
  request.set_id(*id);
  stream_.Queue(request);
  return true;
}

bool NetconfBridge::Receive(uint64_t id, Response* response, std::string* error,
                            std::chrono::milliseconds timeout) {
  if (auto early = answered_.find(id); early != answered_.end()) {
    *response = std::move(early->second);
    answered_.erase(early);
    return true;
  }
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    std::string payload;
    while (stream_.Next(&payload) == FramedStream::Frame::kComplete) {
      ServerMessage message;
      if (!message.ParseFromString(payload) || !message.has_response()) continue;
      if (message.response().id() == id) {
        *response = std::move(*message.mutable_response());
        return true;
      }
      answered_[message.response().id()] = std::move(*message.mutable_response());
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0 || *stop_) {
      *error = "the management server did not answer in time";
      return false;
    }
    pollfd p{fd_, static_cast<short>(POLLIN | (stream_.HasOutput() ? POLLOUT : 0)), 0};
    if (::poll(&p, 1, static_cast<int>(std::min<int64_t>(left.count(), 200))) < 0 &&
        errno != EINTR) {
      *error = "lost the management server";
      return false;
    }
    if ((stream_.HasOutput() && stream_.WriteTo(fd_) != FramedStream::Io::kOk) ||
        ((p.revents & (POLLIN | POLLHUP)) && stream_.ReadFrom(fd_) != FramedStream::Io::kOk)) {
      *error = "lost the management server";
      return false;
    }
  }
}

}  // namespace pbr::mgmt
