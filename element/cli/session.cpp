#include "element/cli/session.h"

#include "element/cli/config_tree.h"
#include "element/cli/document.h"
#include "element/cli/error_text.h"
#include "element/cli/status_table.h"

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
  return std::visit(Overloaded{
                        [&](const ShowRunning& c) { return ShowRunningConfig(c); },
                        [&](const ShowPbr& c) { return ShowStatus(c); },
                        [&](const ShowCandidate&) { return ShowCandidateChanges(); },
                        [&](const EditCommand& c) {
                          return shell ? AddToCandidate(c) : CommitEdit(c.operations);
                        },
                        [&](const LoadCommand& c) {
                          const int status = LoadFile(c);
                          if (status == kExitOk && shell) out_ << "committed" << std::endl;
                          return status;
                        },
                        [&](const Commit&) { return CommitCandidate(); },
                        [&](const Discard&) {
                          candidate_.clear();
                          return int{kExitOk};
                        },
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
  candidate_.insert(candidate_.end(), edit.operations.begin(), edit.operations.end());
  return kExitOk;
}

int Session::CommitCandidate() {
  if (candidate_.empty()) {
    out_ << "nothing to commit" << std::endl;
    return kExitOk;
  }
  // A refused candidate stays, to be corrected or discarded.
  const int status = CommitEdit(candidate_);
  if (status == kExitOk) {
    candidate_.clear();
    out_ << "committed" << std::endl;
  }
  return status;
}

int Session::Call(mgmt::ClientMessage request, mgmt::Response* response) {
  std::string error;
  if (!client_) {
    client_ = MgmtClient::Connect(options_.socketPath, options_.timeout, &error);
    if (!client_) {
      err_ << "error: " << error << std::endl;
      return kExitUnreachable;
    }
  }
  if (!client_->Call(std::move(request), response, &error)) {
    client_.reset();  // the next command connects afresh
    err_ << "error: " << error << std::endl;
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

int Session::ShowRunningConfig(const ShowRunning& show) {
  mgmt::ClientMessage request;
  request.mutable_get_running();
  mgmt::Response response;
  if (const int status = Call(std::move(request), &response)) return status;
  if (const int status = Refusal(response)) return status;
  if (show.json) {
    WriteText(out_, response.data());
    return kExitOk;
  }
  ly_ctx* schema = Schema();
  if (!schema) return kExitFailed;
  std::string tree, error;
  if (!FormatConfigTree(schema, response.data(), &tree, &error)) {
    err_ << "error: " << error << std::endl;
    return kExitFailed;
  }
  out_.write(tree.data(), static_cast<std::streamsize>(tree.size()));
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
    if (show.json) {
      WriteText(out_, response.data());
    } else {
      std::string table, error;
      if (!FormatStatusTable(response.data(), &table, &error)) {
        err_ << "error: " << error << std::endl;
        return kExitFailed;
      }
      out_.write(table.data(), static_cast<std::streamsize>(table.size()));
      out_.flush();
    }
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
  mgmt::Response response;
  if (const int status = Call(std::move(request), &response)) return status;
  return Refusal(response, load.file);
}

int Session::ShowCandidateChanges() {
  if (candidate_.empty()) {
    out_ << "no changes" << std::endl;
    return kExitOk;
  }
  for (const mgmt::EditOperation& op : candidate_) out_ << FormatOperation(op) << '\n';
  out_.flush();
  return kExitOk;
}

}  // namespace pbr::cli
