#include "element/kernel/netlink_channel.h"

#include <linux/rtnetlink.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstring>

namespace pbr::element {
namespace {

// Acknowledgements and echoes of a batch are queued at once; leave them ample room.
constexpr int kReceiveBufferBytes = 8 << 20;
// Dump datagrams reach 32 KiB on large tables.
constexpr size_t kReceiveBytes = 64 << 10;
// Datagrams read per loop callback before yielding to other events.
constexpr int kReadsPerCallback = 16;

std::string ExtAckMessage(const nlmsghdr* nlh) {
  if (!(nlh->nlmsg_flags & NLM_F_ACK_TLVS)) return {};
  const auto* err = static_cast<const nlmsgerr*>(mnl_nlmsg_get_payload(nlh));
  size_t offset = sizeof(nlmsgerr);
  // Without NLM_F_CAPPED the original request follows the error header.
  if (!(nlh->nlmsg_flags & NLM_F_CAPPED)) offset += err->msg.nlmsg_len - sizeof(nlmsghdr);
  if (mnl_nlmsg_size(offset) > nlh->nlmsg_len) return {};
  std::string text;
  mnl_attr_parse(
      nlh, offset,
      [](const nlattr* attr, void* data) {
        if (mnl_attr_get_type(attr) == NLMSGERR_ATTR_MSG &&
            mnl_attr_validate(attr, MNL_TYPE_STRING) >= 0)
          *static_cast<std::string*>(data) = mnl_attr_get_str(attr);
        return MNL_CB_OK;
      },
      &text);
  return text;
}

}  // namespace

NetlinkChannel::NetlinkChannel(vqmw_t* mw) : mw_(mw), receive_(kReceiveBytes) {
  batch_.reserve(kBatchBytes);
}

NetlinkChannel::~NetlinkChannel() {
  *alive_ = false;
  watch_.reset();
  retry_.reset();
  if (socket_) mnl_socket_close(socket_);
}

int NetlinkChannel::Open() {
  socket_ = mnl_socket_open2(NETLINK_ROUTE, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (!socket_) return -errno;
  int fd = mnl_socket_get_fd(socket_);
  int on = 1;
  // Errors carry the kernel's explanation but not a copy of the request.
  setsockopt(fd, SOL_NETLINK, NETLINK_EXT_ACK, &on, sizeof on);
  setsockopt(fd, SOL_NETLINK, NETLINK_CAP_ACK, &on, sizeof on);
  int size = kReceiveBufferBytes;
  if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) < 0)
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
  if (mnl_socket_bind(socket_, 0, MNL_SOCKET_AUTOPID) < 0) {
    int error = -errno;
    mnl_socket_close(socket_);
    socket_ = nullptr;
    return error;
  }
  watch_ = vqmw::WatchFd(mw_, fd, EPOLLIN, [this](uint32_t) { OnReadable(); });
  return 0;
}

uint32_t NetlinkChannel::PortId() const {
  return socket_ ? mnl_socket_get_portid(socket_) : 0;
}

void NetlinkChannel::Send(const nlmsghdr* request, Done done, Reply reply) {
  Request r;
  r.bytes.assign(reinterpret_cast<const char*>(request), request->nlmsg_len);
  r.done = std::move(done);
  r.reply = std::move(reply);
  queue_.push_back(std::move(r));
  SchedulePump();
}

void NetlinkChannel::Dump(const nlmsghdr* request, Reply part, Done done) {
  Request r;
  r.bytes.assign(reinterpret_cast<const char*>(request), request->nlmsg_len);
  r.done = std::move(done);
  r.reply = std::move(part);
  r.dump = true;
  queue_.push_back(std::move(r));
  SchedulePump();
}

void NetlinkChannel::SchedulePump() {
  if (pump_scheduled_) return;
  pump_scheduled_ = true;
  vqmw::Defer(mw_, [this, alive = std::weak_ptr<bool>(alive_)] {
    if (alive.expired()) return;
    pump_scheduled_ = false;
    Pump();
  });
}

void NetlinkChannel::Pump() {
  if (!socket_) {
    // Never opened (or failed to): answer everything so that callers do not wait forever.
    while (!queue_.empty()) {
      Request r = std::move(queue_.front());
      queue_.pop_front();
      if (r.done) r.done(-ENOTCONN, "netlink socket is not open");
    }
    return;
  }
  if (in_flight_.empty() && !queue_.empty() && !retry_) SendBatch();
}

void NetlinkChannel::SendBatch() {
  batch_.clear();
  size_t count = 0;
  for (auto& r : queue_) {
    if (r.dump && count > 0) break;
    if (count > 0 && batch_.size() + r.bytes.size() > kBatchBytes) break;
    r.seq = next_seq_++;
    if (next_seq_ == 0) next_seq_ = 1;
    auto* nlh = reinterpret_cast<nlmsghdr*>(r.bytes.data());
    nlh->nlmsg_seq = r.seq;
    batch_.insert(batch_.end(), r.bytes.begin(), r.bytes.end());
    ++count;
    if (r.dump) break;
  }
  if (mnl_socket_sendto(socket_, batch_.data(), batch_.size()) < 0) {
    int error = errno;
    if (error == EAGAIN || error == ENOBUFS || error == ENOMEM || error == EINTR) {
      // Kernel memory pressure: try the same batch again shortly.
      retry_ = vqmw::StartTimer(mw_, std::chrono::milliseconds(10), [this] {
        retry_.reset();
        Pump();
      });
      return;
    }
    for (size_t i = 0; i < count; ++i) {
      Request r = std::move(queue_.front());
      queue_.pop_front();
      if (r.done) r.done(-error, "sendmsg failed");
    }
    SchedulePump();
    return;
  }
  for (size_t i = 0; i < count; ++i) {
    in_flight_.push_back(std::move(queue_.front()));
    queue_.pop_front();
  }
}

void NetlinkChannel::OnReadable() {
  auto alive = std::weak_ptr<bool>(alive_);
  for (int i = 0; i < kReadsPerCallback; ++i) {
    ssize_t n = mnl_socket_recvfrom(socket_, receive_.data(), receive_.size());
    if (n < 0) {
      if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) break;
      if (errno == ENOBUFS) {
        // Answers were dropped: nobody can tell which requests the kernel applied.
        FailInFlight(-ENOBUFS);
        if (alive.expired()) return;
        continue;
      }
      FailInFlight(-errno);
      return;
    }
    int len = static_cast<int>(n);
    for (auto* nlh = reinterpret_cast<const nlmsghdr*>(receive_.data()); mnl_nlmsg_ok(nlh, len);
         nlh = mnl_nlmsg_next(nlh, &len)) {
      Handle(nlh);
      if (alive.expired()) return;
    }
  }
  Pump();
}

void NetlinkChannel::Handle(const nlmsghdr* nlh) {
  size_t index = 0;
  while (index < in_flight_.size() && in_flight_[index].seq != nlh->nlmsg_seq) ++index;
  if (index == in_flight_.size()) return;  // an answer to a request already given up

  Request& r = in_flight_[index];
  if (nlh->nlmsg_type == NLMSG_ERROR) {
    if (nlh->nlmsg_len < mnl_nlmsg_size(sizeof(nlmsgerr))) {
      Complete(index, -EBADMSG, "truncated acknowledgement");
      return;
    }
    const auto* err = static_cast<const nlmsgerr*>(mnl_nlmsg_get_payload(nlh));
    Complete(index, err->error, err->error ? ExtAckMessage(nlh) : std::string());
    return;
  }
  if (nlh->nlmsg_type == NLMSG_DONE && r.dump) {
    int error = 0;
    if (nlh->nlmsg_len >= mnl_nlmsg_size(sizeof(int)))
      std::memcpy(&error, mnl_nlmsg_get_payload(nlh), sizeof error);
    if (error == 0 && r.interrupted) error = -EINTR;
    Complete(index, error, {});
    return;
  }
  if (nlh->nlmsg_flags & NLM_F_DUMP_INTR) r.interrupted = true;
  if (r.reply) r.reply(nlh);
}

void NetlinkChannel::Complete(size_t index, int error, const std::string& message) {
  // Requests before this one were sent in the same order and every one asks for an answer:
  // one without an answer was lost.
  std::deque<Request> done;
  for (size_t i = 0; i <= index; ++i) {
    done.push_back(std::move(in_flight_.front()));
    in_flight_.pop_front();
  }
  auto alive = std::weak_ptr<bool>(alive_);
  for (size_t i = 0; i < done.size(); ++i) {
    bool last = i + 1 == done.size();
    if (done[i].done) done[i].done(last ? error : -EIO, last ? message : "no acknowledgement");
    if (alive.expired()) return;
  }
}

void NetlinkChannel::FailInFlight(int error) {
  std::deque<Request> lost;
  lost.swap(in_flight_);
  auto alive = std::weak_ptr<bool>(alive_);
  for (auto& r : lost) {
    if (r.done) r.done(error, "acknowledgement lost");
    if (alive.expired()) return;
  }
  SchedulePump();
}

}  // namespace pbr::element
