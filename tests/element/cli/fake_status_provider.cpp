#include "tests/element/cli/fake_status_provider.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>

#include "common/pbr_schema.h"
#include "element/mgmt/mgmt.pb.h"
#include "platform/confd_lib.h"

namespace pbrtest {
namespace {

using pbr::mgmt::ObjectReply;

void AddValue(ObjectReply* reply, uint32_t tag, uint32_t ns, confd_vtype type,
              const std::string& text = {}) {
  pbr::mgmt::TagValue* tv = reply->add_value();
  tv->set_tag(tag);
  tv->set_ns(ns);
  tv->mutable_value()->set_type(type);
  tv->mutable_value()->set_text(text);
}

// The daemon's reply for one rule: id, rule { priority, source-ip, destination-ip, interfaces,
// action, hw-status, description }, the leaves it does not fill marked absent.
void FillReply(uint32_t id, const FakeRuleStatus& rule, ObjectReply* reply) {
  reply->set_replied(true);
  AddValue(reply, pbr::pbr_id, 0, C_UINT32, std::to_string(id));
  AddValue(reply, pbr::pbr_rule, pbr::pbr__ns, C_XMLBEGIN);
  AddValue(reply, pbr::pbr_priority, 0, C_NOEXISTS);
  if (rule.source) {
    AddValue(reply, pbr::pbr_source_ip, 0, C_STR, *rule.source);
  } else {
    AddValue(reply, pbr::pbr_source_ip, 0, C_NOEXISTS);
  }
  if (rule.destination) {
    AddValue(reply, pbr::pbr_destination_ip, 0, C_STR, *rule.destination);
  } else {
    AddValue(reply, pbr::pbr_destination_ip, 0, C_NOEXISTS);
  }
  AddValue(reply, pbr::pbr_interfaces, 0, C_NOEXISTS);
  AddValue(reply, pbr::pbr_action, 0, C_STR, rule.nextHop.value_or(pbr::kL3RoutingText));
  if (rule.hwStatus >= 0 && rule.hwStatus <= 2) {
    AddValue(reply, pbr::pbr_hw_status, 0, C_ENUM_VALUE, std::to_string(rule.hwStatus));
  }
  AddValue(reply, pbr::pbr_description, 0, C_NOEXISTS);
  AddValue(reply, pbr::pbr_rule, pbr::pbr__ns, C_XMLEND);
}

}  // namespace

FakeStatusProvider::~FakeStatusProvider() {
  if (fd_ >= 0) ::close(fd_);
}

bool FakeStatusProvider::Attach(const std::string& socketPath, std::string* error) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, socketPath.c_str(), sizeof addr.sun_path - 1);
  fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (::connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    *error = "connect: " + std::string(std::strerror(errno));
    return false;
  }
  ::fcntl(fd_, F_SETFL, O_NONBLOCK);
  pbr::mgmt::ClientMessage attach;
  attach.set_id(1);
  attach.mutable_attach()->set_app_name("fake-status");
  attach.mutable_attach()->add_callpoint(pbr::kShowPbrCallpoint);
  stream_.Queue(attach);

  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  std::string payload;
  while (std::chrono::steady_clock::now() < deadline) {
    stream_.WriteTo(fd_);
    pollfd p{fd_, POLLIN, 0};
    if (::poll(&p, 1, 100) <= 0) continue;
    if (stream_.ReadFrom(fd_) != pbr::mgmt::FramedStream::Io::kOk) break;
    if (stream_.Next(&payload) != pbr::mgmt::FramedStream::Frame::kComplete) continue;
    pbr::mgmt::ServerMessage answer;
    if (answer.ParseFromString(payload) && answer.has_attach_reply()) return true;
    *error = "attach refused: " + answer.response().error().message();
    return false;
  }
  *error = "no answer to attach";
  return false;
}

void FakeStatusProvider::Serve() {
  stream_.ReadFrom(fd_);
  std::string payload;
  while (stream_.Next(&payload) == pbr::mgmt::FramedStream::Frame::kComplete) {
    pbr::mgmt::ServerMessage message;
    if (!message.ParseFromString(payload) || !message.has_get_objects()) continue;
    pbr::mgmt::ClientMessage answer;
    pbr::mgmt::DataReply* reply = answer.mutable_data_reply();
    reply->set_request(message.get_objects().request());
    for (const pbr::mgmt::Value& key : message.get_objects().key()) {
      const uint32_t id = static_cast<uint32_t>(std::stoul(key.text()));
      auto it = rules_.find(id);
      FillReply(id, it != rules_.end() ? it->second : FakeRuleStatus{}, reply->add_object());
    }
    stream_.Queue(answer);
    ++served_;
  }
  // The server reads on while the reply goes out; each wait for room is bounded.
  for (int i = 0; i < 100 && stream_.HasOutput(); ++i) {
    stream_.WriteTo(fd_);
    if (!stream_.HasOutput()) break;
    pollfd p{fd_, POLLOUT, 0};
    ::poll(&p, 1, 100);
  }
}

}  // namespace pbrtest
