// Carries out operator commands against the management server and prints their results: the
// one-shot form runs one command, the shell runs one after another in the same session, whose
// candidate and locks the server holds for as long as the connection lasts. Data goes to `out`,
// refusals and failures to `err`, each as one "error: PATH: REASON" line. Used on the process's one
// thread.
#pragma once

#include <chrono>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "element/cli/client.h"
#include "element/cli/command.h"
#include "element/yang/module.h"

namespace pbr::cli {

// The exit status of pbr-cli and of each command.
enum ExitStatus : int {
  kExitOk = 0,
  kExitFailed = 1,       // refused by the server, or its input could not be read
  kExitUsage = 2,        // not a valid command
  kExitUnreachable = 3,  // the server cannot be reached or did not answer in time
};

struct SessionOptions {
  std::string socketPath;
  std::chrono::milliseconds timeout{30000};
};

class Session {
 public:
  Session(SessionOptions options, std::ostream& out, std::ostream& err);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Runs one command and returns its exit status. In the shell, set and delete change the
  // session's candidate on the server, which commit applies and discard drops.
  int Run(const Command& command, Context context);

  // The edits made to the candidate since it was last committed or discarded.
  size_t uncommittedEdits() const { return edits_; }
  // Whether this session committed with confirmation and has not confirmed or aborted since:
  // the server undoes that commit when the session ends.
  bool confirmationPending() const { return confirmPending_; }

  // The running configuration as RFC 7951 JSON; prints the failure and returns its status when
  // it cannot be had.
  int RunningJson(std::string* json);

  // The schema, loaded on first use; null (reported once) when it cannot be loaded.
  ly_ctx* Schema();

  bool exitRequested() const { return exitRequested_; }

 private:
  // Sends one request, connecting first when there is no connection. Prints the failure and
  // returns its status when there is no answer; kExitOk otherwise, the answer in *response.
  int Call(mgmt::ClientMessage request, mgmt::Response* response);
  // A request about the session's candidate; the answer's data in *data.
  int CandidateCall(mgmt::CandidateRequest::Kind kind, std::string* data,
                    const Commit* commit = nullptr);
  // Prints a refusal and returns kExitFailed; kExitOk for an accepted answer. `file`: the
  // refused input was this file.
  int Refusal(const mgmt::Response& response, std::string_view file = {});

  int ShowRunningConfig(const ShowRunning& show);
  int ShowStatus(const ShowPbr& show);
  int CommitEdit(const std::vector<mgmt::EditOperation>& operations);
  int AddToCandidate(const EditCommand& edit);
  int CommitCandidate(const Commit& commit);
  int SimpleCandidateCall(mgmt::CandidateRequest::Kind kind, const char* done);
  // confirm or abort of this session's confirmed commit.
  int EndConfirmation(mgmt::CandidateRequest::Kind kind, const char* done);
  int LoadFile(const LoadCommand& load);
  int ShowCandidateChanges(const ShowCandidate& show);
  int ShowHistory(const ShowCommits& show);
  int RollbackTo(const RollbackCommand& rollback);
  int Lock(const LockCommand& lock);
  // Prints changes ({"changes": [...]}) as set/delete lines, or `none` when there are none.
  int PrintChanges(const std::string& json, bool asJson, const char* none);
  int Debug(const DebugCommand& debug);

  SessionOptions options_;
  std::ostream& out_;
  std::ostream& err_;
  std::unique_ptr<MgmtClient> client_;  // connected on first use, dropped when broken
  yang::Context schema_;                // for trees and error paths
  bool schemaFailed_ = false;
  size_t edits_ = 0;
  // The server holds something of this session (a candidate, a lock, a confirmed commit), lost
  // when the connection is.
  bool serverState_ = false;
  bool confirmPending_ = false;
  bool exitRequested_ = false;
};

}  // namespace pbr::cli
