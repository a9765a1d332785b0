// The operator tool's connection to the management server: one request at a time, each answered
// by one Response. pbr-cli is a client process, so it waits for the answer, but never for longer
// than the timeout it was given: a server that does not accept, read or answer is reported.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "element/mgmt/framing.h"
#include "element/mgmt/mgmt.pb.h"

namespace pbr::cli {

// $PBR_ELEMENT_RUNTIME_DIR/mgmt.sock, the runtime directory defaulting to /run/pbr-element.
std::string DefaultSocketPath();

class MgmtClient {
 public:
  // Connects within `timeout`; null with *error naming the socket and the reason.
  static std::unique_ptr<MgmtClient> Connect(const std::string& socketPath,
                                             std::chrono::milliseconds timeout, std::string* error);
  ~MgmtClient();
  MgmtClient(const MgmtClient&) = delete;
  MgmtClient& operator=(const MgmtClient&) = delete;

  // Sends `request` (its id is assigned here) and waits for the answer, at most the timeout.
  // False with *error when the connection failed or the server did not answer in time; the
  // client is then broken and should be dropped.
  bool Call(mgmt::ClientMessage request, mgmt::Response* response, std::string* error);

  // False when the server has closed the connection while no request was out (it restarted).
  bool Alive() const;

 private:
  MgmtClient(int fd, std::string socketPath, std::chrono::milliseconds timeout);

  int fd_;
  std::string socketPath_;
  std::chrono::milliseconds timeout_;
  mgmt::FramedStream stream_;
  uint64_t nextId_ = 1;
};

}  // namespace pbr::cli
