// One NETCONF session's way into the management server: a connected socket whose other end the
// server serves on its loop as an ordinary session, so NETCONF requests take the same path,
// locks and candidate rules as the CLI's. Used by the session's own thread only; calls block
// that thread (never the loop) until the server answers.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <string>

#include "element/mgmt/framing.h"
#include "element/mgmt/mgmt.pb.h"

namespace pbr::mgmt {

class Server;

class NetconfBridge {
 public:
  // Connects a new server session of `user`, serving NETCONF session `netconfSession`, whose
  // commits are recorded as made over NETCONF. Calls give up soon after `*stop` turns true (the
  // server is shutting down).
  NetconfBridge(Server* server, const std::string& user, const std::atomic<bool>* stop,
                uint32_t netconfSession = 0);
  ~NetconfBridge();
  NetconfBridge(const NetconfBridge&) = delete;
  NetconfBridge& operator=(const NetconfBridge&) = delete;

  // Sends the request and waits for its response. False with *error when the server does not
  // answer within `timeout` or the connection broke.
  bool Call(ClientMessage request, Response* response, std::string* error,
            std::chrono::milliseconds timeout = std::chrono::seconds(60));
  // The two halves of Call, for requests the server works on at once (a reply that waits for a
  // daemon while the loop answers another): Send queues (*id names the request), Receive waits
  // for the response to `id`, keeping others that come first.
  bool Send(ClientMessage request, uint64_t* id, std::string* error);
  bool Receive(uint64_t id, Response* response, std::string* error,
               std::chrono::milliseconds timeout = std::chrono::seconds(60));

 private:
  const std::atomic<bool>* stop_;
  int fd_ = -1;
  uint64_t nextId_ = 1;
  std::map<uint64_t, Response> answered_;  // responses that came before their Receive
  FramedStream stream_;
};

}  // namespace pbr::mgmt
