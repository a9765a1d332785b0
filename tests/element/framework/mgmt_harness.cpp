#include "tests/element/framework/mgmt_harness.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

#include <gtest/gtest.h>

#include "platform/confd_lib.h"

namespace pbrtest {

using pbr::mgmt::ClientMessage;
using pbr::mgmt::Response;

bool LoopWaiter::Until(std::function<bool()> done, std::chrono::milliseconds timeout) {
  if (done()) return true;
  done_ = std::move(done);
  running_ = true;
  vqmw_loop_while_timeout(mw_, &running_, static_cast<int>(timeout.count()));
  const bool ok = done_();
  done_ = nullptr;
  return ok;
}

Operator::Operator(vqmw_t* mw, LoopWaiter* waiter) : mw_(mw), waiter_(waiter) {
  const std::string path = vqmw::RuntimeDir() + "/mgmt.sock";
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
  fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    close(fd_);
    fd_ = -1;
    return;
  }
  fcntl(fd_, F_SETFL, O_NONBLOCK);
  watch_ = vqmw::WatchFd(mw_, fd_, EPOLLIN, [this](uint32_t revents) { OnIo(revents); });
}

Operator::~Operator() {
  watch_.reset();
  if (fd_ >= 0) close(fd_);
}

void Operator::OnIo(uint32_t revents) {
  if (revents & EPOLLOUT) stream_.WriteTo(fd_);
  if (revents & (EPOLLIN | EPOLLHUP | EPOLLERR)) {
    const auto io = stream_.ReadFrom(fd_);
    std::string payload;
    while (stream_.Next(&payload) == pbr::mgmt::FramedStream::Frame::kComplete) {
      pbr::mgmt::ServerMessage message;
      if (message.ParseFromString(payload) && message.has_response()) {
        responses_.push_back(message.response());
      }
    }
    if (io != pbr::mgmt::FramedStream::Io::kOk) {
      closed_ = true;
      watch_.reset();
    }
  }
  if (watch_) vqmw::SetFdEvents(*watch_, EPOLLIN | (stream_.HasOutput() ? EPOLLOUT : 0u));
  waiter_->Poke();
}

void Operator::SendRaw(const std::string& bytes) {
  ASSERT_EQ(write(fd_, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
}

bool Operator::NextResponse(Response* response) {
  waiter_->Until([&] { return !responses_.empty() || closed_; });
  if (responses_.empty()) return false;
  *response = responses_.front();
  responses_.erase(responses_.begin());
  return true;
}

Response Operator::Call(ClientMessage message) {
  const uint64_t id = nextId_++;
  message.set_id(id);
  stream_.Queue(message);
  stream_.WriteTo(fd_);
  if (watch_) vqmw::SetFdEvents(*watch_, EPOLLIN | (stream_.HasOutput() ? EPOLLOUT : 0u));
  auto mine = [&] {
    for (const Response& r : responses_) {
      if (r.id() == id) return true;
    }
    return closed_;
  };
  Response out;
  if (!waiter_->Until(mine)) {
    out.mutable_error()->set_message("no response");
    return out;
  }
  for (auto it = responses_.begin(); it != responses_.end(); ++it) {
    if (it->id() == id) {
      out = *it;
      responses_.erase(it);
      return out;
    }
  }
  out.mutable_error()->set_message("connection closed");
  return out;
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

std::string Operator::Running() {
  ClientMessage m;
  m.mutable_get_running();
  return Call(m).data();
}

Response Operator::Operational(std::optional<uint32_t> id) {
  ClientMessage m;
  auto* get = m.mutable_get_operational();
  if (id) get->set_id(*id);
  return Call(m);
}

namespace {

const char* OpName(confd_iter_op op) {
  switch (op) {
    case MOP_CREATED:
      return "MOP_CREATED";
    case MOP_DELETED:
      return "MOP_DELETED";
    case MOP_MODIFIED:
      return "MOP_MODIFIED";
    case MOP_VALUE_SET:
      return "MOP_VALUE_SET";
    default:
      return "MOP_?";
  }
}

std::string ValueText(const confd_value_t* v) {
  char buf[64];
  switch (v->type) {
    case C_UINT32:
      return std::to_string(v->val.u32);
    case C_BUF:
      return std::string(reinterpret_cast<char*>(v->val.buf.ptr), v->val.buf.size);
    case C_IPV4:
      return inet_ntop(AF_INET, &v->val.ip, buf, sizeof buf);
    case C_IPV4_AND_PLEN:
      inet_ntop(AF_INET, &v->val.ipv4prefix.ip, buf, sizeof buf);
      return std::string(buf) + "/" + std::to_string(v->val.ipv4prefix.len);
    default:
      return "type" + std::to_string(v->type);
  }
}

}  // namespace

RecordingConfigHandler::RecordingConfigHandler(LoopWaiter* waiter) : waiter_(waiter) {
  subscriptionPoints_.push_back({0, 0x7b4a9bffu, "/router/pbr", 0,
                                 [this](confd_hkeypath_t* kp, confd_iter_op op, confd_value_t* o,
                                        confd_value_t* n) { return OnChange(kp, op, o, n); }});
}

void RecordingConfigHandler::Record(std::string event) {
  events.push_back(std::move(event));
  waiter_->Poke();
}

void RecordingConfigHandler::ConfdConnected(vqconfd::ELEM_CONFD_PHASE_ET phase) {
  Record("ConfdConnected " + std::to_string(phase));
}

void RecordingConfigHandler::ConfdDisconnected() {
  Record("ConfdDisconnected");
}

void RecordingConfigHandler::ReadInitialConfig(int sock) {
  rules.clear();
  // Reads as the PBR daemon does: every entry by position, optional leaves tested first.
  for (int pos = 0; pos < cdb_num_instances(sock, "/router/pbr"); ++pos) {
    const std::string p = "/router/pbr[" + std::to_string(pos) + "]";
    uint32_t id = 0, prio = 0;
    if (cdb_get_u_int32(sock, &id, (p + "/id").c_str()) != CONFD_OK ||
        cdb_get_u_int32(sock, &prio, (p + "/rule/priority").c_str()) != CONFD_OK) {
      rules.push_back("unreadable: " + std::string(confd_lasterr()));
      continue;
    }
    std::string line = "id=" + std::to_string(id) + " prio=" + std::to_string(prio);
    // " name=value" for an optional leaf that exists and reads into a value of `type`.
    const auto optional = [&](const std::string& name, const std::string& leaf, int type) {
      const std::string path = p + leaf;
      if (!cdb_exists(sock, path.c_str())) return;
      confd_value_t v{};
      v.type = static_cast<confd_vtype>(type);
      int ok = CONFD_ERR;
      char text[33] = {};
      if (type == C_BUF) {
        ok = cdb_get_str(sock, text, sizeof text, path.c_str());
        v.val.buf = {static_cast<unsigned>(strlen(text)), reinterpret_cast<unsigned char*>(text)};
      } else if (type == C_IPV4) {
        ok = cdb_get_ipv4(sock, &v.val.ip, path.c_str());
      } else {
        ok = cdb_get_ipv4_and_plen(sock, &v.val.ipv4prefix, path.c_str());
      }
      if (ok == CONFD_OK) line += " " + name + "=" + ValueText(&v);
    };
    optional("desc", "/rule/description", C_BUF);
    confd_value_t* values = nullptr;
    int n = 0;
    if (cdb_get_list(sock, &values, &n, (p + "/rule/match/interface").c_str()) == CONFD_OK) {
      line += " if=";
      for (int i = 0; i < n; ++i) {
        line += (i ? "," : "") + ValueText(&values[i]);
        confd_free_value(&values[i]);
      }
      free(values);
    }
    for (const std::string dir : {"source", "destination"}) {
      optional(dir, "/rule/match/" + dir + "/ipv4-address/no-mask/ip", C_IPV4);
      optional(dir, "/rule/match/" + dir + "/ipv4-address/mask/ip", C_IPV4_AND_PLEN);
    }
    optional("nh", "/rule/action/next-hop/ip", C_IPV4);
    rules.push_back(line);
  }
  Record("ReadInitialConfig");
}

void RecordingConfigHandler::ApplyInitialConfig() {
  ++attachments;
  Record("ApplyInitialConfig");
}

void RecordingConfigHandler::StartCommit() {
  Record("StartCommit");
}

void RecordingConfigHandler::ApplyCommitConfig() {
  if (throwOnApply) {
    throwOnApply = false;
    throw std::runtime_error("rule table full");
  }
  ++commits;
  Record("ApplyCommitConfig");
}

confd_iter_ret RecordingConfigHandler::OnChange(confd_hkeypath_t* kp, confd_iter_op op,
                                                confd_value_t* oldValue, confd_value_t* newValue) {
  (void)oldValue;
  char path[8192];
  confd_pp_kpath(path, sizeof path, kp);
  std::string event = std::string(OpName(op)) + " " + path;
  if (newValue) event += " " + ValueText(newValue);
  Record(event);
  return steer ? steer(path) : ITER_RECURSE;
}

std::vector<std::string> RecordingConfigHandler::LastCommit() const {
  std::vector<std::string> out;
  for (auto it = events.rbegin(); it != events.rend(); ++it) {
    if (*it == "StartCommit") break;
    if (*it != "ApplyCommitConfig") out.insert(out.begin(), *it);
  }
  return out;
}

class RecordingDataHandler::Callpoint : public vqconfd::DataHandler::Callpoint {
 public:
  explicit Callpoint(RecordingDataHandler* owner) : owner_(owner) {}
  const char* GetCallpointName() override { return "show_pbr"; }
  int GetObjectCallback(confd_trans_ctx* tctx, confd_hkeypath_t* kp) override {
    const uint32_t id = kp->v[0][0].val.u32;
    owner_->requested.push_back(id);
    if (id == owner_->throwFor) throw std::out_of_range("no mask text");
    source_ = "10.0.0." + std::to_string(id % 256) + "/24";
    confd_tag_value_t tv[7];
    CONFD_SET_TAG_UINT32(&tv[0], 0x4c3fd91du, id);
    CONFD_SET_TAG_XMLBEGIN(&tv[1], 0x74470328u, 0x7b4a9bffu);
    CONFD_SET_TAG_NOEXISTS(&tv[2], 0x503e91e6u);
    CONFD_SET_TAG_STR(&tv[3], 0x28c9af51u, source_.data());
    CONFD_SET_TAG_STR(&tv[4], 0x2216416fu, const_cast<char*>("l3-routing"));
    int n = 5;
    auto it = owner_->status.find(id);
    if (it != owner_->status.end()) {
      CONFD_SET_TAG_ENUM_VALUE(&tv[5], 0x48c78716u, it->second);
      n = 6;
    }
    CONFD_SET_TAG_XMLEND(&tv[n], 0x74470328u, 0x7b4a9bffu);
    ++n;
    confd_data_reply_tag_value_array(tctx, tv, n);
    return CONFD_OK;
  }

 private:
  RecordingDataHandler* owner_;
  std::string source_;
};

RecordingDataHandler::RecordingDataHandler()
    : DataHandler(true, false, true, false, false, true, false),
      callpoint_(std::make_unique<Callpoint>(this)) {
  callpoints_.push_back(callpoint_.get());
}

RecordingDataHandler::~RecordingDataHandler() = default;

}  // namespace pbrtest
