// vqconfd::AppInterface: attaches the daemon's handlers to the management server on
// $PBR_ELEMENT_RUNTIME_DIR/mgmt.sock, from the middleware loop and without blocking it. While
// the server is away it retries with a back-off (100 ms doubling to 5 s); at every attachment it
// reports ConfdConnected and runs ReadInitialConfig and ApplyInitialConfig on a snapshot of the
// running configuration; each commit then arrives as StartCommit, the subscription callbacks in
// ConfD's diff order, ApplyCommitConfig, and is acknowledged. A lost connection reports
// ConfdDisconnected and the framework attaches again when the server is back.
//
// An exception leaving a handler's callback stays in the framework: it is logged, reported as a
// fault of severity 0, and then
// - in ReadInitialConfig, ApplyInitialConfig, StartCommit, a change callback or
//   ApplyCommitConfig, the connection is dropped and attached again, so the handler reloads the
//   whole configuration rather than going on from a half-applied commit (which stays
//   unacknowledged);
// - in a get-object request, that entry is answered with the exception's text and the others
//   as usual.
#include <errno.h>
#include <malloc.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <google/protobuf/arena.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <exception>
#include <map>
#include <new>
#include <string>

#include "element/framework/cdb.h"
#include "element/framework/commit_wire.h"
#include "element/framework/data_reply.h"
#include "element/framework/element_callpoints.h"
#include "element/framework/values.h"
#include "element/mgmt/framing.h"
#include "element/mgmt/mgmt.pb.h"
#include "element/middleware/log.h"
#include "element/middleware/loop.h"
#include "platform/vqconfd.h"

#define FW_LOG_AT(impl, level, ...)                                          \
  zlog((impl)->category, __FILE_NAME__, sizeof(__FILE_NAME__) - 1, __func__, \
       std::strlen(__func__), __LINE__, level, __VA_ARGS__)
#define FW_LOG(impl, ...) FW_LOG_AT(impl, 10, __VA_ARGS__)
// Info level: what an operator (or a benchmark) follows without the daemon's trace records.
constexpr int kInfoLevel = 40;

namespace vqconfd {
namespace {

using namespace std::chrono_literals;
constexpr std::chrono::milliseconds kFirstRetry = 100ms;
constexpr std::chrono::milliseconds kLastRetry = 5000ms;
// A message's arena takes its blocks straight from the kernel: a snapshot of tens of thousands
// of rules fills hundreds of megabytes of blocks, and blocks from malloc's heap would interleave
// with the handlers' long-lived objects and keep the heap from shrinking once they are freed.
void* MapBlock(size_t size) {
  void* block = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (block == MAP_FAILED) throw std::bad_alloc();
  return block;
}
void UnmapBlock(void* block, size_t size) {
  munmap(block, size);
}
google::protobuf::ArenaOptions ArenaOptions() {
  google::protobuf::ArenaOptions options;
  options.start_block_size = 64 << 10;
  options.max_block_size = 1 << 20;
  options.block_alloc = MapBlock;
  options.block_dealloc = UnmapBlock;
  return options;
}

// Messages from this size on are followed by returning the heap's free memory to the system.
constexpr size_t kTrimAfter = 1 << 20;
// The first block of a view reply's arena: a reply of the server's 512 entries fits.
constexpr size_t kReplyBlock = 1 << 20;

}  // namespace

struct AppInterface::Impl {
  struct Point {
    ConfigHandler* handler;
    const SubscriptionPoint* point;
  };
  struct Served {
    DataHandler* handler;
    DataHandler::Callpoint* callpoint;
  };

  vqmw_t* mw;
  zlog_category_t* category;
  std::string app;
  std::vector<ConfigHandler*> configHandlers;
  std::vector<DataHandler*> dataHandlers;
  ELEM_CONFD_PHASE_ET phase;
  std::vector<Point> points;  // by subscription index, as sent in Attach
  std::map<std::string, Served> callpoints;

  int fd = -1;
  bool connecting = false;
  bool connectedReported = false;
  uint64_t generation = 0;  // changes whenever the connection is dropped
  std::unique_ptr<vqmw::Source> watch;
  std::unique_ptr<vqmw::Source> timer;
  std::unique_ptr<char[]> replyBlock;  // the first block of view replies, kReplyBlock bytes
  pbr::mgmt::FramedStream stream;
  std::chrono::milliseconds retry = kFirstRetry;
  std::chrono::steady_clock::time_point attachSent;  // when the pending Attach was queued
  bool trimPending = false;    // a bulk message passed; trim the heap once its output is out
  bool readyNotified = false;  // READY=1 goes to a service manager once, at the first attach
  uint64_t nextRequest = 1;

  ~Impl() { Close(); }

  void ScheduleConnect(std::chrono::milliseconds delay) {
    timer = vqmw::StartTimer(mw, delay, [this] { Connect(); });
  }

  void Connect();
  void Close();
  void Drop(const std::string& why);
  void OnIo(uint32_t revents);
  void Send(const pbr::mgmt::ClientMessage& message);
  void UpdateEvents() {
    if (watch)
      vqmw::SetFdEvents(*watch,
                        EPOLLIN | (stream.HasOutput() || connecting ? uint32_t{EPOLLOUT} : 0u));
  }
  void Handle(pbr::mgmt::ServerMessage& message);
  void TrimAfterBulk();
  void HandleAttachReply(const detail::CdbSnapshot& snapshot, uint64_t seq);
  // A subscription's index and its serialized SubscriptionChanges.
  using SubscriptionBytes = std::pair<uint32_t, std::string_view>;
  void HandleCommit(uint64_t seq, const std::vector<SubscriptionBytes>& commit);
  void HandleGetObjects(const pbr::mgmt::GetObjects& request);
  void Ack(uint64_t seq);
  // Runs a handler callback; false when it threw (logged and reported).
  template <typename F>
  bool Guard(const char* what, F&& f);
};

template <typename F>
bool AppInterface::Impl::Guard(const char* what, F&& f) {
  std::string text;
  try {
    f();
    return true;
  } catch (const std::exception& e) {
    text = e.what();
  } catch (...) {
    text = "unknown exception";
  }
  char message[350] = {};
  std::snprintf(message, sizeof message, "%s: exception from %s: %s", app.c_str(), what,
                text.c_str());
  FW_LOG(this, "%s", message);
  vqmw_gen_fault(0, what, __FILE__, __LINE__, message);
  return false;
}

void AppInterface::Impl::Connect() {
  timer.reset();
  const std::string path = vqmw::RuntimeDir() + "/mgmt.sock";
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
  fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0 || (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 &&
                 errno != EINPROGRESS && errno != EAGAIN)) {
    FW_LOG(this, "management server not reachable at %s (%s), retrying in %lld ms", path.c_str(),
           std::strerror(errno), static_cast<long long>(retry.count()));
    if (fd >= 0) ::close(fd);
    fd = -1;
    ScheduleConnect(retry);
    retry = std::min(retry * 2, kLastRetry);
    return;
  }
  connecting = true;
  watch = vqmw::WatchFd(mw, fd, EPOLLIN | EPOLLOUT, [this](uint32_t revents) { OnIo(revents); });

  pbr::mgmt::ClientMessage message;
  message.set_id(nextRequest++);
  pbr::mgmt::Attach* attach = message.mutable_attach();
  attach->set_app_name(app);
  attach->set_trace(vqmw::TraceText());
  for (const Point& p : points) {
    pbr::mgmt::Subscription* sub = attach->add_subscription();
    sub->set_priority(p.point->priority);
    sub->set_ns(p.point->ns);
    sub->set_path(p.point->path ? p.point->path : "");
  }
  for (const auto& [name, served] : callpoints) attach->add_callpoint(name);
  for (const std::string& name : detail::ElementCallpoints()) attach->add_callpoint(name);
  stream.Queue(message);
  attachSent = std::chrono::steady_clock::now();
  UpdateEvents();
}

void AppInterface::Impl::Close() {
  watch.reset();
  if (fd >= 0) {
    detail::CloseCdbSocket(fd);
    ::close(fd);
  }
  fd = -1;
  connecting = false;
  stream = pbr::mgmt::FramedStream();
  ++generation;
}

void AppInterface::Impl::Drop(const std::string& why) {
  FW_LOG(this, "connection to the management server lost: %s", why.c_str());
  Close();
  if (connectedReported) {
    connectedReported = false;
    for (ConfigHandler* h : configHandlers)
      Guard("ConfdDisconnected", [&] { h->ConfdDisconnected(); });
    for (DataHandler* h : dataHandlers) Guard("ConfdDisconnected", [&] { h->ConfdDisconnected(); });
  }
  ScheduleConnect(retry);
  retry = std::min(retry * 2, kLastRetry);
}

void AppInterface::Impl::Send(const pbr::mgmt::ClientMessage& message) {
  stream.Queue(message);
  if (stream.QueuedBytes() >= kTrimAfter) trimPending = true;
  if (!connecting && stream.WriteTo(fd) == pbr::mgmt::FramedStream::Io::kError) {
    Drop("write failed");
    return;
  }
  UpdateEvents();
}

void AppInterface::Impl::OnIo(uint32_t revents) {
  const uint64_t gen = generation;
  if (revents & EPOLLOUT) {
    if (connecting) {
      int err = 0;
      socklen_t len = sizeof err;
      ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len);
      if (err != 0) {
        Drop(std::strerror(err));
        return;
      }
      connecting = false;
    }
    if (stream.WriteTo(fd) == pbr::mgmt::FramedStream::Io::kError) {
      Drop("write failed");
      return;
    }
  }
  if (revents & (EPOLLIN | EPOLLHUP | EPOLLERR)) {
    const pbr::mgmt::FramedStream::Io io = stream.ReadFrom(fd);
    std::string_view payload;
    for (;;) {
      const pbr::mgmt::FramedStream::Frame frame = stream.Next(&payload);
      if (frame == pbr::mgmt::FramedStream::Frame::kIncomplete) break;
      if (payload.size() >= kTrimAfter) trimPending = true;
      // Snapshots and commits are read in place, without becoming hundreds of thousands of
      // messages.
      uint64_t seq = 0;
      std::string_view root;
      if (frame == pbr::mgmt::FramedStream::Frame::kComplete &&
          detail::PeekAttachReply(payload, &seq, &root)) {
        const detail::CdbSnapshot snapshot(root);
        if (!snapshot.valid()) {
          Drop("malformed message from the server");
          return;
        }
        HandleAttachReply(snapshot, seq);
        if (generation != gen) return;
        continue;
      }
      std::vector<SubscriptionBytes> commit;
      if (frame == pbr::mgmt::FramedStream::Frame::kComplete &&
          detail::PeekCommit(payload, &seq, &commit)) {
        HandleCommit(seq, commit);
        if (generation != gen) return;
        continue;
      }
      // Other messages are small, but a malformed one may claim otherwise: an arena makes and
      // frees them at once.
      google::protobuf::Arena arena(ArenaOptions());
      auto* message = google::protobuf::Arena::CreateMessage<pbr::mgmt::ServerMessage>(&arena);
      if (frame == pbr::mgmt::FramedStream::Frame::kOversized ||
          !message->ParseFromArray(payload.data(), static_cast<int>(payload.size()))) {
        Drop("malformed message from the server");
        return;
      }
      Handle(*message);
      if (generation != gen) return;  // a handler's exception dropped the connection
    }
    if (io != pbr::mgmt::FramedStream::Io::kOk) {
      Drop(io == pbr::mgmt::FramedStream::Io::kClosed ? "closed by the server" : "read failed");
      return;
    }
  }
  UpdateEvents();
  TrimAfterBulk();
}

void AppInterface::Impl::TrimAfterBulk() {
  // A snapshot, a bulk commit or a large operational reply leaves up to hundreds of megabytes
  // free in the heap, which malloc keeps for itself; give them back, or the daemon's resident
  // size stays at its peak.
  if (!trimPending || stream.HasOutput()) return;
  trimPending = false;
  malloc_trim(0);
}

void AppInterface::Impl::Handle(pbr::mgmt::ServerMessage& message) {
  switch (message.body_case()) {
    case pbr::mgmt::ServerMessage::kAttachReply: {
      const detail::CdbSnapshot snapshot(&message.attach_reply().root());
      HandleAttachReply(snapshot, message.attach_reply().seq());
      return;
    }
    case pbr::mgmt::ServerMessage::kCommit: {
      // Commits are read in place (OnIo); this is one that only the full parser accepted.
      std::vector<std::string> wire;
      std::vector<SubscriptionBytes> commit;
      for (const pbr::mgmt::SubscriptionChanges& changes : message.commit().subscription()) {
        wire.push_back(changes.SerializeAsString());
      }
      for (size_t i = 0; i < wire.size(); ++i) {
        commit.emplace_back(message.commit().subscription(static_cast<int>(i)).subscription(),
                            wire[i]);
      }
      HandleCommit(message.commit().seq(), commit);
      return;
    }
    case pbr::mgmt::ServerMessage::kGetObjects:
      HandleGetObjects(message.get_objects());
      return;
    case pbr::mgmt::ServerMessage::kTraceLevels: {
      std::string why;
      if (!vqmw::ChangeTrace(message.trace_levels().levels(), &why)) {
        vqmw::Logger().warn("{}: trace levels not changed: {}", app, why);
      }
      return;
    }
    case pbr::mgmt::ServerMessage::kResponse:
      // Only a refusal is answered with a Response: the server will not have this daemon.
      FW_LOG(this, "management server refused: %s (%s)",
             message.response().error().message().c_str(),
             message.response().error().path().c_str());
      Drop("refused");
      return;
    case pbr::mgmt::ServerMessage::BODY_NOT_SET:
      return;
  }
}

void AppInterface::Impl::HandleAttachReply(const detail::CdbSnapshot& snapshot, uint64_t seq) {
  FW_LOG(this, "attached to the management server");
  const auto attached = std::chrono::steady_clock::now();
  const uint64_t gen = generation;
  connectedReported = true;
  for (ConfigHandler* h : configHandlers)
    Guard("ConfdConnected", [&] { h->ConfdConnected(phase); });
  for (DataHandler* h : dataHandlers) Guard("ConfdConnected", [&] { h->ConfdConnected(phase); });
  detail::OpenCdbSocket(fd, &snapshot);
  const int sock = fd;
  bool ok = true;
  for (ConfigHandler* h : configHandlers) {
    ok = Guard("ReadInitialConfig", [&] { h->ReadInitialConfig(sock); }) &&
         Guard("ApplyInitialConfig", [&] { h->ApplyInitialConfig(); });
    if (!ok || generation != gen) break;
  }
  detail::CloseCdbSocket(sock);
  if (generation != gen) return;
  if (!ok) {
    Drop("a handler failed on the initial configuration");
    return;
  }
  retry = kFirstRetry;
  // Both spans: the server's snapshot with its transfer and parsing, then the handlers' load.
  const auto now = std::chrono::steady_clock::now();
  FW_LOG_AT(this, kInfoLevel,
            "initial configuration read and applied in %.1f ms, %.1f ms after attaching",
            std::chrono::duration<double, std::milli>(now - attached).count(),
            std::chrono::duration<double, std::milli>(now - attachSent).count());
  Ack(seq);
  // Serving from now on: a service manager waiting for readiness (Type=notify) may go on. Later
  // re-attachments are not news to it.
  if (!readyNotified) {
    readyNotified = true;
    sd_notify(0, "READY=1");
  }
}

void AppInterface::Impl::HandleCommit(uint64_t seq, const std::vector<SubscriptionBytes>& commit) {
  // The touched handlers in the order of their lowest touched subscription priority, each with
  // its touched subscriptions.
  std::vector<std::pair<ConfigHandler*, std::vector<const SubscriptionBytes*>>> touched;
  std::map<ConfigHandler*, int32_t> lowest;
  std::vector<const SubscriptionBytes*> bySubscription;
  for (const SubscriptionBytes& changes : commit) bySubscription.push_back(&changes);
  std::stable_sort(bySubscription.begin(), bySubscription.end(),
                   [](auto* a, auto* b) { return a->first < b->first; });
  for (const SubscriptionBytes* changes : bySubscription) {
    if (changes->first >= points.size()) continue;
    const Point& p = points[changes->first];
    auto it = std::find_if(touched.begin(), touched.end(),
                           [&](const auto& t) { return t.first == p.handler; });
    if (it == touched.end()) {
      touched.push_back({p.handler, {}});
      it = touched.end() - 1;
      lowest[p.handler] = p.point->priority;
    }
    it->second.push_back(changes);
    lowest[p.handler] = std::min(lowest[p.handler], p.point->priority);
  }
  std::stable_sort(touched.begin(), touched.end(),
                   [&](const auto& a, const auto& b) { return lowest[a.first] < lowest[b.first]; });

  const uint64_t gen = generation;
  for (auto& [handler, subscriptions] : touched) {
    bool ok = Guard("StartCommit", [&] { handler->StartCommit(); });
    for (const SubscriptionBytes* changes : subscriptions) {
      const IterateCallback& callback = points[changes->first].point->callback;
      // The changes that enclose the current one, innermost last, with their full keypaths.
      struct Enclosing {
        uint64_t index;
        uint64_t last;  // index of its last descendant
        std::vector<pbr::mgmt::KeypathElement> path;
      };
      std::vector<Enclosing> open;
      std::vector<const pbr::mgmt::KeypathElement*> path;
      detail::ChangeCursor cursor(changes->second);
      for (uint64_t i = 0; ok; ++i) {
        const pbr::mgmt::Change* change = cursor.Next();
        if (change == nullptr) break;
        while (!open.empty() && open.back().last < i) open.pop_back();
        path.clear();
        if (change->enclosing() > 0 && change->enclosing() <= i) {
          for (const Enclosing& e : open) {
            if (e.index != i - change->enclosing()) continue;
            for (const pbr::mgmt::KeypathElement& k : e.path) path.push_back(&k);
            break;
          }
        }
        for (const pbr::mgmt::KeypathElement& e : change->keypath()) path.push_back(&e);
        if (change->descendants() > 0) {
          Enclosing& e = open.emplace_back(Enclosing{i, i + change->descendants(), {}});
          for (const pbr::mgmt::KeypathElement* k : path) e.path.push_back(*k);
        }
        confd_hkeypath_t kp;
        confd_value_t oldValue, newValue;
        if (!detail::BuildKeypath(path, &kp) ||
            (change->has_old_value() && !detail::FromWire(change->old_value(), &oldValue)) ||
            (change->has_new_value() && !detail::FromWire(change->new_value(), &newValue))) {
          FW_LOG(this, "change %llu of commit %llu does not fit ConfD's types; skipped",
                 static_cast<unsigned long long>(i), static_cast<unsigned long long>(seq));
          continue;
        }
        confd_iter_ret ret = ITER_RECURSE;
        ok = Guard("the subscription callback", [&] {
          ret = callback(&kp, static_cast<confd_iter_op>(change->op()),
                         change->has_old_value() ? &oldValue : nullptr,
                         change->has_new_value() ? &newValue : nullptr);
        });
        if (ret == ITER_STOP) break;
        if (ret == ITER_CONTINUE) {
          cursor.Skip(change->descendants());
          i += change->descendants();
        }
      }
      if (!cursor.ok()) {
        FW_LOG(this, "commit %llu: malformed changes", static_cast<unsigned long long>(seq));
        ok = false;
      }
    }
    ok = ok && Guard("ApplyCommitConfig", [&] { handler->ApplyCommitConfig(); });
    if (generation != gen) return;
    if (!ok) {
      Drop("a handler failed on a commit");
      return;
    }
  }
  Ack(seq);
}

void AppInterface::Impl::HandleGetObjects(const pbr::mgmt::GetObjects& request) {
  // One reply object per requested entry: in an arena, like the messages received, whose
  // first block is kept for the next request (fresh pages fault in anew each time).
  if (!replyBlock) replyBlock = std::make_unique<char[]>(kReplyBlock);
  google::protobuf::ArenaOptions options = ArenaOptions();
  options.initial_block = replyBlock.get();
  options.initial_block_size = kReplyBlock;
  google::protobuf::Arena arena(options);
  auto& message = *google::protobuf::Arena::CreateMessage<pbr::mgmt::ClientMessage>(&arena);
  message.set_id(nextRequest++);
  pbr::mgmt::DataReply* reply = message.mutable_data_reply();
  reply->set_request(request.request());
  if (detail::AnswerElementCallpoint(request, reply)) {
    Send(message);
    return;
  }
  auto served = callpoints.find(request.callpoint());
  const uint64_t gen = generation;
  confd_trans_ctx tctx{nullptr};
  if (served != callpoints.end()) {
    Guard("TransactionInit", [&] { served->second.handler->TransactionInit(&tctx); });
  }
  std::vector<const pbr::mgmt::KeypathElement*> elements;
  for (const pbr::mgmt::KeypathElement& e : request.list_keypath()) elements.push_back(&e);
  pbr::mgmt::KeypathElement keyElement;
  elements.push_back(&keyElement);
  for (const pbr::mgmt::Value& key : request.key()) {
    pbr::mgmt::ObjectReply* object = reply->add_object();
    if (served == callpoints.end()) {
      object->set_error("callpoint " + request.callpoint() + " is not served");
      continue;
    }
    keyElement.clear_key();
    *keyElement.add_key() = key;
    confd_hkeypath_t kp;
    if (!detail::BuildKeypath(elements, &kp)) {
      object->set_error("bad key " + key.text());
      continue;
    }
    tctx.reply = object;
    int result = CONFD_OK;
    if (!Guard("GetObjectCallback",
               [&] { result = served->second.callpoint->GetObjectCallback(&tctx, &kp); })) {
      object->Clear();
      object->set_error("the callpoint failed");
    } else if (!object->replied() && result != CONFD_OK) {
      object->set_error("the callpoint answered " + std::to_string(result));
    }
    if (generation != gen) return;
  }
  tctx.reply = nullptr;
  if (served != callpoints.end()) {
    Guard("TransactionFinish", [&] { served->second.handler->TransactionFinish(&tctx); });
  }
  if (generation != gen) return;
  Send(message);
}

void AppInterface::Impl::Ack(uint64_t seq) {
  pbr::mgmt::ClientMessage message;
  message.set_id(nextRequest++);
  message.mutable_commit_ack()->set_seq(seq);
  Send(message);
}

AppInterface::AppInterface(vqmw_t* mw, zlog_category_t* category, const char* appName,
                           const std::vector<ConfigHandler*>& configHandlers,
                           const std::vector<ActionHandler*>& /*actionHandlers*/,
                           const std::vector<DataHandler*>& dataHandlers, ELEM_CONFD_PHASE_ET phase,
                           int /*options*/)
    : impl_(std::make_unique<Impl>()) {
  impl_->mw = mw;
  impl_->category = category;
  impl_->app = appName ? appName : "";
  impl_->configHandlers = configHandlers;
  impl_->dataHandlers = dataHandlers;
  impl_->phase = phase;
  // Both lists are complete when the handlers are built and never change.
  for (ConfigHandler* h : configHandlers) {
    for (const SubscriptionPoint& p : h->GetSubscriptionPoints()) impl_->points.push_back({h, &p});
  }
  for (DataHandler* h : dataHandlers) {
    for (DataHandler::Callpoint* cp : h->GetCallpoints()) {
      impl_->callpoints[cp->GetCallpointName()] = {h, cp};
    }
  }
  // Connect once the loop runs: nothing here may block or call back into the handlers.
  impl_->ScheduleConnect(std::chrono::milliseconds(0));
}

AppInterface::~AppInterface() = default;

}  // namespace vqconfd
