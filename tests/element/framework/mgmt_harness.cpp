#include "tests/element/framework/mgmt_harness.h"

#include <cstring>
#include <future>
#include <stdexcept>

#include "element/framework/values.h"
#include "platform/confd_lib.h"

namespace pbrtest {

using pbr::mgmt::ClientMessage;
using pbr::mgmt::Response;

bool RunLoopUntil(vqmw_t* mw, const std::function<bool()>& done,
                  std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!done()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    bool running = true;
    vqmw_loop_while_timeout(mw, &running, 5);
  }
  return true;
}

Operator::Operator(vqmw_t* mw) : mw_(mw) {
  std::string error;
  client_ = pbr::cli::MgmtClient::Connect(vqmw::RuntimeDir() + "/mgmt.sock",
                                          std::chrono::seconds(10), &error);
}

Response Operator::Call(ClientMessage message) {
  auto answer = std::async(std::launch::async, [&] {
    Response response;
    std::string error;
    if (!client_->Call(std::move(message), &response, &error)) {
      response.mutable_error()->set_message(error);
    }
    return response;
  });
  RunLoopUntil(
      mw_, [&] { return answer.wait_for(std::chrono::seconds(0)) == std::future_status::ready; },
      std::chrono::seconds(20));
  return answer.get();
}

Response Operator::Edit(const std::string& path, const std::string& value) {
  ClientMessage m;
  auto* op = m.mutable_edit()->add_operation();
  op->set_path(path);
  op->set_value(value);
  return Call(m);
}

Response Operator::Delete(const std::string& path) {
  ClientMessage m;
  auto* op = m.mutable_edit()->add_operation();
  op->set_kind(pbr::mgmt::EditOperation::DELETE);
  op->set_path(path);
  return Call(m);
}

Response Operator::Merge(const std::string& json) {
  ClientMessage m;
  m.mutable_load()->set_data(json);
  return Call(m);
}

Response Operator::Operational(std::optional<uint32_t> id) {
  ClientMessage m;
  auto* get = m.mutable_get_operational();
  if (id) get->set_id(*id);
  return Call(m);
}

namespace {

// The daemon's rules go nowhere: the tests read the cache.
class Discard : public pbr::PbrClient {
 public:
  pbr::Error SetEntry(const uint16_t&, const pbr::Entry&) override { return pbr::PBR_OK; }
  pbr::Error DeleteEntry(const uint16_t&) override { return pbr::PBR_OK; }
  pbr::Error RegisterStatusListener(pbr::PbrStatusItf*) override { return pbr::PBR_OK; }
};

Discard discard;

}  // namespace

RecordingConfigHandler::RecordingConfigHandler(pbr::ConfigCache* rules)
    : pbr::ConfigHandler(vqmw_trace_register_category("pbr-app"), &discard, rules),
      points_(pbr::ConfigHandler::GetSubscriptionPoints()) {
  for (vqconfd::SubscriptionPoint& point : points_) {
    point.callback = [this, daemon = point.callback](confd_hkeypath_t* kp, confd_iter_op op,
                                                     confd_value_t* oldValue,
                                                     confd_value_t* newValue) {
      static const char* const kOps[] = {"MOP_?", "MOP_CREATED", "MOP_DELETED", "MOP_MODIFIED",
                                         "MOP_VALUE_SET"};
      char path[8192];
      confd_pp_kpath(path, sizeof path, kp);
      std::string event = std::string(kOps[op <= MOP_VALUE_SET ? op : 0]) + " " + path;
      if (newValue) {
        pbr::mgmt::Value text;
        vqconfd::detail::ToWire(*newValue, &text);
        event += " " + text.text();
      }
      events.push_back(event);
      const confd_iter_ret result = daemon(kp, op, oldValue, newValue);
      return steer ? steer(path) : result;
    };
  }
}

void RecordingConfigHandler::ConfdConnected(vqconfd::ELEM_CONFD_PHASE_ET phase) {
  events.push_back("ConfdConnected " + std::to_string(phase));
}

void RecordingConfigHandler::ConfdDisconnected() {
  events.push_back("ConfdDisconnected");
}

void RecordingConfigHandler::ReadInitialConfig(int sock) {
  firstRule = 0;
  cdb_get_u_int32(sock, &firstRule, "/router/pbr[0]/id");
  pbr::ConfigHandler::ReadInitialConfig(sock);
  events.push_back("ReadInitialConfig");
}

void RecordingConfigHandler::ApplyInitialConfig() {
  pbr::ConfigHandler::ApplyInitialConfig();
  ++attachments;
  events.push_back("ApplyInitialConfig");
}

void RecordingConfigHandler::StartCommit() {
  pbr::ConfigHandler::StartCommit();
  events.push_back("StartCommit");
}

void RecordingConfigHandler::ApplyCommitConfig() {
  if (throwOnApply) {
    throwOnApply = false;
    throw std::runtime_error("rule table full");
  }
  pbr::ConfigHandler::ApplyCommitConfig();
  ++commits;
  events.push_back("ApplyCommitConfig");
}

std::vector<std::string> RecordingConfigHandler::LastCommit() const {
  std::vector<std::string> out;
  for (auto it = events.rbegin(); it != events.rend(); ++it) {
    if (*it == "StartCommit") break;
    if (*it != "ApplyCommitConfig") out.insert(out.begin(), *it);
  }
  return out;
}

}  // namespace pbrtest
