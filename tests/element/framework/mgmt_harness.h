// What the framework's end-to-end tests drive: pbr-mgmtd as a process of its own, an operator
// session on the middleware loop, handlers that record what the framework calls, and a way to
// run the loop until something recorded makes a condition true.
#pragma once

#include <chrono>
#include <csignal>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "element/mgmt/framing.h"
#include "element/mgmt/mgmt.pb.h"
#include "element/middleware/loop.h"
#include "platform/vqconfd.h"
#include "tests/element/cli/child_process.h"

namespace pbrtest {

// pbr-mgmtd in the current PBR_ELEMENT_* environment; its messages go to the element's log.
class MgmtServer {
 public:
  // Starts the server and waits for its readiness; false when it exited or stayed silent.
  bool Start() {
    std::string error;
    child_ = StartService({PBR_MGMTD}, vqmw::RuntimeDir() + "/test-notify.sock", &error);
    return child_ != nullptr;
  }
  void Signal(int signal) {
    if (child_) child_->Signal(signal);
  }
  // Sends `signal` and waits for the end: the exit status, 128 + the signal when killed by one.
  int Stop(int signal = SIGTERM) {
    if (!child_) return -1;
    child_->Signal(signal);
    const int status = child_->Finish(std::chrono::seconds(10)).status;
    child_.reset();
    return status;
  }

 private:
  std::unique_ptr<Child> child_;
};

// Runs the middleware loop until a condition holds: whoever records something calls Poke().
class LoopWaiter {
 public:
  explicit LoopWaiter(vqmw_t* mw) : mw_(mw) {}
  // False when `done` did not become true within `timeout`.
  bool Until(std::function<bool()> done,
             std::chrono::milliseconds timeout = std::chrono::seconds(10));
  void Poke() {
    if (done_ && done_()) running_ = false;
  }

 private:
  vqmw_t* mw_;
  std::function<bool()> done_;
  bool running_ = false;
};

// An operator tool's session: requests and their responses, run on the loop so that the
// daemon's handlers in the same process keep working meanwhile.
class Operator {
 public:
  Operator(vqmw_t* mw, LoopWaiter* waiter);
  ~Operator();
  bool connected() const { return fd_ >= 0; }
  pbr::mgmt::Response Call(pbr::mgmt::ClientMessage message);
  // Sends raw bytes, for malformed input.
  void SendRaw(const std::string& bytes);
  // Waits for the next response, whatever its id; false when none comes or the server closed.
  bool NextResponse(pbr::mgmt::Response* response);
  bool closed() const { return closed_; }

  pbr::mgmt::Response Edit(const std::string& path, const std::string& value);
  pbr::mgmt::Response Delete(const std::string& path);
  pbr::mgmt::Response Merge(const std::string& json);
  std::string Running();
  pbr::mgmt::Response Operational(std::optional<uint32_t> id = std::nullopt);

 private:
  void OnIo(uint32_t revents);
  vqmw_t* mw_;
  LoopWaiter* waiter_;
  int fd_ = -1;
  bool closed_ = false;
  uint64_t nextId_ = 1;
  pbr::mgmt::FramedStream stream_;
  std::unique_ptr<vqmw::Source> watch_;
  std::vector<pbr::mgmt::Response> responses_;
};

// A configuration handler subscribed to /router/pbr that records every call as text.
class RecordingConfigHandler : public vqconfd::ConfigHandler {
 public:
  explicit RecordingConfigHandler(LoopWaiter* waiter);

  void ConfdConnected(vqconfd::ELEM_CONFD_PHASE_ET phase) override;
  void ConfdDisconnected() override;
  void ReadInitialConfig(int cdbSocket) override;
  void ApplyInitialConfig() override;
  void StartCommit() override;
  void ApplyCommitConfig() override;

  // "StartCommit", "MOP_CREATED /router/pbr{7}", "MOP_VALUE_SET /router/pbr{7}/id 7", ...
  std::vector<std::string> events;
  // The rules of the last ReadInitialConfig as read by position, one line each.
  std::vector<std::string> rules;
  int attachments = 0;
  int commits = 0;
  // Steers the descent per keypath text; recurse by default.
  std::function<confd_iter_ret(const std::string& keypath)> steer;
  // Throws from the next ApplyCommitConfig.
  bool throwOnApply = false;

  // The events since the last StartCommit up to ApplyCommitConfig, without those two.
  std::vector<std::string> LastCommit() const;

 private:
  confd_iter_ret OnChange(confd_hkeypath_t* kp, confd_iter_op op, confd_value_t* oldValue,
                          confd_value_t* newValue);
  void Record(std::string event);
  LoopWaiter* waiter_;
};

// A data handler serving "show_pbr": each rule's source is 10.0.0.<id>/24 and its hardware
// status the one in `status` (none when absent).
class RecordingDataHandler : public vqconfd::DataHandler {
 public:
  RecordingDataHandler();
  ~RecordingDataHandler() override;
  std::map<uint32_t, int32_t> status;
  std::vector<uint32_t> requested;
  uint32_t throwFor = 0;  // the rule whose request throws

 private:
  class Callpoint;
  std::unique_ptr<Callpoint> callpoint_;
};

}  // namespace pbrtest
