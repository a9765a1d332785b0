#include "element/cli/session.h"

#include <cstdio>
#include <nlohmann/json.hpp>

#include "element/cli/config_tree.h"
#include "element/cli/document.h"
#include "element/cli/error_text.h"
#include "element/cli/rule_view.h"

namespace pbr::cli {
namespace {

template <class... F>
struct Overloaded : F... {
  using F::operator()...;
};

void WriteText(std::ostream& out, const std::string& text) {
  out.write(text.data(), static_cast<std::streamsize>(text.size()));
  if (!text.empty() && text.back() != '\n') out.put('\n');
  out.flush();
}

}  // namespace

Session::Session(SessionOptions options, std::ostream& out, std::ostream& err)
    : options_(std::move(options)), out_(out), err_(err) {}

Session::~Session() = default;

int Session::Run(const Command& command, Context context) {
  const bool shell = context == Context::kShell;
  using Kind = mgmt::CandidateRequest;
  return std::visit(
      Overloaded{
          [&](const ShowRunning& c) { return ShowRunningConfig(c); },
          [&](const ShowPbr& c) { return ShowStatus(c); },
          [&](const ShowCandidate& c) { return ShowCandidateChanges(c); },
          [&](const ShowCommits& c) { return ShowHistory(c); },
          [&](const EditCommand& c) {
            return shell ? AddToCandidate(c) : CommitEdit(c.operations);
          },
          [&](const LoadCommand& c) {
            const int status = LoadFile(c);
            if (status == kExitOk && shell && !c.dryRun) out_ << "committed" << std::endl;
            return status;
          },
          [&](const RollbackCommand& c) { return RollbackTo(c); },
          [&](const Commit& c) { return CommitCandidate(c); },
          [&](const Discard&) {
            const int status = SimpleCandidateCall(Kind::DISCARD, nullptr);
            if (status == kExitOk) edits_ = 0;
            return status;
          },
          [&](const Validate&) { return SimpleCandidateCall(Kind::VALIDATE, "valid"); },
          [&](const Update&) { return SimpleCandidateCall(Kind::UPDATE, "updated"); },
          [&](const Confirm&) { return EndConfirmation(Kind::CONFIRM, "confirmed"); },
          [&](const Abort&) { return EndConfirmation(Kind::ABORT, "aborted"); },
          [&](const LockCommand& c) { return Lock(c); },
          [&](const Help&) {
            out_ << (shell ? ShellHelpText() : UsageText()) << std::flush;
            return int{kExitOk};
          },
          [&](const Exit&) {
            exitRequested_ = true;
            return int{kExitOk};
          },
          [&](const DebugCommand& c) { return Debug(c); },
      },
      command);
}

int Session::AddToCandidate(const EditCommand& edit) {
  mgmt::ClientMessage request;
  for (const mgmt::EditOperation& op : edit.operations) {
    *request.mutable_candidate_edit()->add_operation() = op;
  }
  mgmt::Response response;
  if (const int status = Call(std::move(request), &response)) return status;
  if (const int status = Refusal(response)) return status;
  serverState_ = true;
  edits_ += edit.operations.size();
  return kExitOk;
}

int Session::CandidateCall(mgmt::CandidateRequest::Kind kind, std::string* data,
                           const Commit* commit) {
  mgmt::ClientMessage request;
  mgmt::CandidateRequest* body = request.mutable_candidate();
  body->set_kind(kind);
  if (commit) {
    body->set_comment(commit->comment);
    if (commit->confirmSeconds) body->set_confirm_timeout(*commit->confirmSeconds);
  }
  mgmt::Response response;
  if (const int status = Call(std::move(request), &response)) return status;
  if (const int status = Refusal(response)) return status;
  *data = response.data();
  return kExitOk;
}

int Session::SimpleCandidateCall(mgmt::CandidateRequest::Kind kind, const char* done) {
  std::string data;
  if (const int status = CandidateCall(kind, &data)) return status;
  if (done) out_ << done << std::endl;
  return kExitOk;
}

int Session::EndConfirmation(mgmt::CandidateRequest::Kind kind, const char* done) {
  const int status = SimpleCandidateCall(kind, done);
  if (status == kExitOk) confirmPending_ = false;
  return status;
}

int Session::CommitCandidate(const Commit& commit) {
  std::string data;
  // A refused candidate stays, to be corrected, updated or discarded.
  if (const int status = CandidateCall(mgmt::CandidateRequest::COMMIT, &data, &commit)) {
    return status;
  }
  edits_ = 0;
  const auto answer = nlohmann::json::parse(data, nullptr, false);
  if (data == "{}") {
    out_ << "nothing to commit" << std::endl;
  } else if (answer.is_object() && answer.contains("armed")) {
    out_ << "nothing to commit; commits from now on are undone in " << *commit.confirmSeconds
         << " s unless confirmed" << std::endl;
    serverState_ = true;
    confirmPending_ = true;
  } else if (answer.is_object() && answer.contains("extended")) {
    out_ << "undone in " << *commit.confirmSeconds << " s unless confirmed" << std::endl;
  } else if (answer.is_object() && answer.contains("confirmed")) {
    out_ << "confirmed" << std::endl;
    serverState_ = false;
    confirmPending_ = false;
  } else {
    out_ << "committed";
    if (answer.is_object() && answer.contains("id")) out_ << " (commit " << answer["id"] << ")";
    if (commit.confirmSeconds) {
      out_ << "; undone in " << *commit.confirmSeconds << " s unless confirmed";
      serverState_ = true;
    }
    // A plain commit confirms this session's pending one.
    confirmPending_ = commit.confirmSeconds.has_value();
    out_ << std::endl;
  }
  return kExitOk;
}

int Session::Lock(const LockCommand& lock) {
  mgmt::ClientMessage request;
  request.mutable_lock()->set_target(lock.target);
  request.mutable_lock()->set_unlock(lock.unlock);
  mgmt::Response response;
  if (const int status = Call(std::move(request), &response)) return status;
  if (const int status = Refusal(response)) return status;
  if (!lock.unlock) serverState_ = true;
  out_ << (lock.unlock ? "unlocked" : "locked") << std::endl;
  return kExitOk;
}

int Session::PrintChanges(const std::string& json, bool asJson, const char* none) {
  if (asJson) {
    WriteText(out_, json);
    return kExitOk;
  }
  const auto doc = nlohmann::json::parse(json, nullptr, false);
  if (!doc.is_object() || !doc.contains("changes") || !doc["changes"].is_array()) {
    err_ << "error: the management server sent changes that cannot be read" << std::endl;
    return kExitFailed;
  }
  if (doc["changes"].empty()) out_ << none << '\n';
  for (const auto& change : doc["changes"]) {
    mgmt::EditOperation op;
    op.set_kind(change.value("op", "") == "delete" ? mgmt::EditOperation::DELETE
                                                   : mgmt::EditOperation::SET);
    op.set_path(change.value("path", ""));
    if (change.contains("value")) {
      out_ << "set " << op.path() << ' ' << QuoteWord(change.value("value", "")) << '\n';
    } else {
      out_ << FormatOperation(op) << '\n';
    }
  }
  out_.flush();
  return kExitOk;
}

int Session::ShowCandidateChanges(const ShowCandidate& show) {
  std::string data;
  if (const int status = CandidateCall(mgmt::CandidateRequest::SHOW, &data)) return status;
  return PrintChanges(data, show.json, "no changes");
}

int Session::ShowHistory(const ShowCommits& show) {
  mgmt::ClientMessage request;
  if (show.id) {
    request.mutable_get_commits()->set_id(*show.id);
  } else {
    request.mutable_get_commits();
  }
  mgmt::Response response;
  if (const int status = Call(std::move(request), &response)) return status;
  if (const int status = Refusal(response)) return status;
  if (show.id) return PrintChanges(response.data(), show.json, "no changes");
  if (show.json) {
    WriteText(out_, response.data());
    return kExitOk;
  }
  const auto list = nlohmann::json::parse(response.data(), nullptr, false);
  if (!list.is_array()) {
    err_ << "error: the management server sent a history that cannot be read" << std::endl;
    return kExitFailed;
  }
  out_ << "ID     TIME                  USER        CLIENT  COMMENT\n";
  for (const auto& c : list) {
    char line[128];
    std::snprintf(line, sizeof line, "%-6llu %-21s %-11s %-7s ",
                  static_cast<unsigned long long>(c.value("id", uint64_t{0})),
                  c.value("time", "").c_str(), c.value("user", "").c_str(),
                  c.value("client", "").c_str());
    // A comment may hold line breaks: they are escaped to keep one commit a line.
    std::string comment;
    AppendPrintable(&comment, c.value("comment", ""));
    out_ << line << comment << '\n';
  }
  out_.flush();
  return kExitOk;
}

int Session::RollbackTo(const RollbackCommand& rollback) {
  mgmt::ClientMessage request;
  request.mutable_rollback()->set_id(rollback.id);
  request.mutable_rollback()->set_dry_run(rollback.dryRun);
  mgmt::Response response;
  if (const int status = Call(std::move(request), &response)) return status;
  if (const int status = Refusal(response)) return status;
  if (rollback.dryRun) return PrintChanges(response.data(), false, "no changes");
  const auto answer = nlohmann::json::parse(response.data(), nullptr, false);
  if (answer.is_object() && answer.contains("id")) {
    out_ << "committed (commit " << answer["id"] << ")" << std::endl;
  } else {
    out_ << "nothing to commit: the configuration is as it was after commit " << rollback.id
         << std::endl;
  }
  return kExitOk;
}

int Session::Call(mgmt::ClientMessage request, mgmt::Response* response) {
  std::string error;
  if (client_ && !client_->Alive()) {
    // The server ended the session since the last command (it restarted, or a NETCONF
    // kill-session ended it): its candidate, locks and confirmed commit went with it. A commit
    // of the old candidate would apply nothing.
    client_.reset();
    if (serverState_) {
      serverState_ = false;
      confirmPending_ = false;
      edits_ = 0;
      err_ << "error: the management server ended this session (a restart, or kill-session); its "
              "candidate and locks are gone, and nothing of the candidate was committed"
           << std::endl;
      if (request.has_candidate() && request.candidate().kind() != mgmt::CandidateRequest::SHOW) {
        return kExitFailed;
      }
    }
  }
  if (!client_) {
    client_ = MgmtClient::Connect(options_.socketPath, options_.timeout, &error);
    if (!client_) {
      err_ << "error: " << error << std::endl;
      return kExitUnreachable;
    }
  }
  const bool commits =
      request.has_edit() || request.has_load() || request.has_rollback() || request.has_candidate();
  if (!client_->Call(std::move(request), response, &error)) {
    client_.reset();  // the next command connects afresh
    err_ << "error: " << error
         << (commits ? "; whether it was applied is unknown (see show commits)" : "") << std::endl;
    if (serverState_) {
      err_ << "error: this session's candidate and locks are gone with the connection" << std::endl;
      serverState_ = false;
      confirmPending_ = false;
      edits_ = 0;
    }
    return kExitUnreachable;
  }
  return kExitOk;
}

int Session::Refusal(const mgmt::Response& response, std::string_view file) {
  if (response.ok()) return kExitOk;
  err_ << "error: " << ErrorText(response.error(), Schema(), file) << std::endl;
  return kExitFailed;
}

ly_ctx* Session::Schema() {
  if (!schema_ && !schemaFailed_) {
    // libyang's messages are taken from the context where they matter, not printed.
    ly_log_options(LY_LOSTORE_LAST);
    std::string error;
    schema_ = yang::LoadContext(&error);
    if (!schema_) {
      err_ << "error: cannot load the schema: " << error << std::endl;
      schemaFailed_ = true;
    }
  }
  return schema_.get();
}

int Session::Debug(const DebugCommand& debug) {
  mgmt::ClientMessage request;
  mgmt::Debug* body = request.mutable_debug();
  if (debug.levels) body->set_levels(*debug.levels);
  mgmt::Response response;
  if (const int status = Call(std::move(request), &response)) return status;
  if (const int status = Refusal(response)) return status;
  WriteText(out_, response.data());
  return kExitOk;
}

int Session::RunningJson(std::string* json) {
  mgmt::ClientMessage request;
  request.mutable_get_running();
  mgmt::Response response;
  if (const int status = Call(std::move(request), &response)) return status;
  if (const int status = Refusal(response)) return status;
  *json = std::move(*response.mutable_data());
  return kExitOk;
}

int Session::ShowRunningConfig(const ShowRunning& show) {
  std::string json;
  if (const int status = RunningJson(&json)) return status;
  if (show.format == ShowRunning::Format::kJson) {
    WriteText(out_, json);
    return kExitOk;
  }
  ly_ctx* schema = Schema();
  if (!schema) return kExitFailed;
  std::string text, error;
  const bool ok =
      show.format == ShowRunning::Format::kSet   ? FormatConfigSet(schema, json, &text, &error)
      : show.format == ShowRunning::Format::kXml ? FormatConfigXml(schema, json, &text, &error)
                                                 : FormatConfigTree(schema, json, &text, &error);
  if (!ok) {
    err_ << "error: " << error << std::endl;
    return kExitFailed;
  }
  out_.write(text.data(), static_cast<std::streamsize>(text.size()));
  out_.flush();
  return kExitOk;
}

int Session::ShowStatus(const ShowPbr& show) {
  mgmt::ClientMessage request;
  mgmt::GetOperational* get = request.mutable_get_operational();
  if (show.id) get->set_id(*show.id);
  mgmt::Response response;
  if (const int status = Call(std::move(request), &response)) return status;
  // A view with entries left out still shows the others, followed by the reason.
  if (!response.data().empty()) {
    std::vector<RuleRow> rows;
    std::string running, error;
    if (!ReadRuleStatus(response.data(), &rows, &error)) {
      err_ << "error: " << error << std::endl;
      return kExitFailed;
    }
    response.clear_data();
    // The operational view leaves out what is configured; it comes from the running
    // configuration, read after the view so that no rule shown lacks it.
    if (const int status = RunningJson(&running)) return status;
    if (!JoinRuleConfig(running, &rows, &error)) {
      err_ << "error: " << error << std::endl;
      return kExitFailed;
    }
    running = std::string();
    const size_t total = rows.size();
    SelectRules(show.query, &rows);
    std::string text;
    if (show.json) {
      FormatRuleJson(rows, &text);
    } else {
      FormatRuleTable(rows, total, &text);
    }
    out_.write(text.data(), static_cast<std::streamsize>(text.size()));
    out_.flush();
  }
  return Refusal(response);
}

int Session::CommitEdit(const std::vector<mgmt::EditOperation>& operations) {
  mgmt::ClientMessage request;
  mgmt::Edit* edit = request.mutable_edit();
  for (const mgmt::EditOperation& op : operations) *edit->add_operation() = op;
  mgmt::Response response;
  if (const int status = Call(std::move(request), &response)) return status;
  return Refusal(response);
}

int Session::LoadFile(const LoadCommand& load) {
  std::string text, error;
  if (!ReadDocument(load.file, load.format, &text, &error)) {
    err_ << "error: " << error << std::endl;
    return kExitFailed;
  }
  mgmt::ClientMessage request;
  mgmt::Load* message = request.mutable_load();
  message->set_mode(load.mode);
  message->set_format(load.format);
  message->set_data(std::move(text));
  message->set_dry_run(load.dryRun);
  mgmt::Response response;
  if (const int status = Call(std::move(request), &response)) return status;
  if (const int status = Refusal(response, load.file)) return status;
  const auto counts = nlohmann::json::parse(response.data(), nullptr, false);
  if (counts.is_object()) {
    out_ << counts.value("added", 0) << " rules added, " << counts.value("changed", 0)
         << " changed, " << counts.value("deleted", 0) << " deleted"
         << (load.dryRun ? " (dry run: nothing committed)" : "") << std::endl;
  }
  return kExitOk;
}

}  // namespace pbr::cli
