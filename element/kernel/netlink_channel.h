// A request channel to the kernel's routing netlink, driven by the middleware loop.
//
// Requests are queued and sent in order, packed into datagrams of at most kBatchBytes, one
// datagram outstanding at a time: the kernel handles a whole datagram inside sendmsg, so small
// batches keep every loop callback short. Each request asks for an acknowledgement, which is
// matched to it by sequence number. A dump is sent alone once everything before it is answered.
//
// Single-threaded: every call and every callback runs on the loop's thread. Callbacks may queue
// new requests. The owner destroys the channel outside its callbacks; queued requests are then
// dropped without callbacks.
#pragma once

#include <libmnl/libmnl.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "element/middleware/loop.h"

namespace pbr::element {

class NetlinkChannel {
 public:
  static constexpr size_t kBatchBytes = 8192;

  // `error` is 0 or a negative errno; `message` the kernel's extended-ack text ("" if none).
  // -ENOBUFS means the answer was lost: the kernel may or may not have applied the request.
  using Done = std::function<void(int error, const std::string& message)>;
  // A message the kernel sent for a request before its acknowledgement: an echo, a dump part.
  using Reply = std::function<void(const nlmsghdr* nlh)>;

  explicit NetlinkChannel(vqmw_t* mw);
  ~NetlinkChannel();
  NetlinkChannel(const NetlinkChannel&) = delete;
  NetlinkChannel& operator=(const NetlinkChannel&) = delete;

  // Opens the socket and starts watching it; 0 or a negative errno.
  int Open();
  // The socket's netlink port id: the kernel stamps it on notifications of our own changes.
  uint32_t PortId() const;

  // Queues a request (copied; its sequence number is assigned here).
  void Send(const nlmsghdr* request, Done done, Reply reply = {});
  // Queues a dump request; `part` sees every object, `done` the end (-EINTR: the dump was
  // inconsistent because the table changed meanwhile, and should be repeated).
  void Dump(const nlmsghdr* request, Reply part, Done done);

  // Nothing queued and nothing awaiting an answer.
  bool Idle() const { return queue_.empty() && in_flight_.empty(); }

 private:
  struct Request {
    std::string bytes;
    Done done;
    Reply reply;
    bool dump = false;
    uint32_t seq = 0;
    bool interrupted = false;  // a dump part carried NLM_F_DUMP_INTR
  };

  void SchedulePump();
  void Pump();
  void SendBatch();
  void OnReadable();
  void Handle(const nlmsghdr* nlh);
  void Complete(size_t index, int error, const std::string& message);
  void FailInFlight(int error);

  vqmw_t* mw_;
  mnl_socket* socket_ = nullptr;
  std::unique_ptr<vqmw::Source> watch_;
  std::unique_ptr<vqmw::Source> retry_;
  std::deque<Request> queue_;
  std::deque<Request> in_flight_;  // in sequence order
  uint32_t next_seq_ = 1;
  bool pump_scheduled_ = false;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
  std::vector<char> batch_;
  std::vector<char> receive_;
};

}  // namespace pbr::element
