// What the framework's end-to-end tests drive: pbr-mgmtd as a process of its own, an operator
// session, a handler that records what the framework calls, and a way to run the loop until a
// condition holds.
#pragma once

#include <chrono>
#include <csignal>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "config/config_handler.h"
#include "element/cli/client.h"
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

// Runs the middleware loop in short turns until `done` holds; false when it did not within
// `timeout`.
bool RunLoopUntil(vqmw_t* mw, const std::function<bool()>& done,
                  std::chrono::milliseconds timeout = std::chrono::seconds(10));

// An operator tool's session: pbr-cli's own client, each call made on a thread of its own while
// the loop runs, so that the daemon's handlers in this process keep working meanwhile.
class Operator {
 public:
  explicit Operator(vqmw_t* mw);
  bool connected() const { return client_ != nullptr; }
  pbr::mgmt::Response Call(pbr::mgmt::ClientMessage message);

  pbr::mgmt::Response Edit(const std::string& path, const std::string& value);
  pbr::mgmt::Response Delete(const std::string& path);
  pbr::mgmt::Response Merge(const std::string& json);
  pbr::mgmt::Response Operational(std::optional<uint32_t> id = std::nullopt);

 private:
  vqmw_t* mw_;
  std::unique_ptr<pbr::cli::MgmtClient> client_;
};

// The daemon's configuration handler on `rules`, recording every call the framework makes as
// text.
class RecordingConfigHandler : public pbr::ConfigHandler {
 public:
  explicit RecordingConfigHandler(pbr::ConfigCache* rules);

  void ConfdConnected(vqconfd::ELEM_CONFD_PHASE_ET phase) override;
  void ConfdDisconnected() override;
  void ReadInitialConfig(int cdbSocket) override;
  void ApplyInitialConfig() override;
  void StartCommit() override;
  void ApplyCommitConfig() override;
  const std::vector<vqconfd::SubscriptionPoint>& GetSubscriptionPoints() const override {
    return points_;
  }

  // "StartCommit", "MOP_CREATED /router/pbr{7}", "MOP_VALUE_SET /router/pbr{7}/id 7", ...
  std::vector<std::string> events;
  uint32_t firstRule = 0;  // the id at list position 0 in the last ReadInitialConfig
  int attachments = 0;
  int commits = 0;
  // Steers the descent per keypath text; recurse by default.
  std::function<confd_iter_ret(const std::string& keypath)> steer;
  // Throws from the next ApplyCommitConfig.
  bool throwOnApply = false;

  // The events since the last StartCommit up to ApplyCommitConfig, without those two.
  std::vector<std::string> LastCommit() const;

 private:
  std::vector<vqconfd::SubscriptionPoint> points_;  // the daemon's, each change recorded first
};

}  // namespace pbrtest
