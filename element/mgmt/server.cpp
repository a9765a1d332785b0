#include "element/mgmt/server.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>
#include <vector>

#include "common/pbr_schema.h"
#include "element/mgmt/data_path.h"
#include "element/mgmt/datastore.h"
#include "element/mgmt/framing.h"
#include "element/mgmt/operational.h"
#include "element/mgmt/running_store.h"
#include "element/mgmt/schema_info.h"
#include "element/middleware/log.h"
#include "element/middleware/trace_config.h"
#include "element/yang/module.h"

namespace pbr::mgmt {
namespace {

// The operational lists and the callpoints that serve them: one get-object request per entry
// of the configuration list `keysFrom`.
struct CallpointBinding {
  const char* callpoint;
  const char* list;
  const char* keysFrom;
};
constexpr CallpointBinding kCallpoints[] = {{"show_pbr", "/router/pbr-status", "/router/pbr"}};

// Get-object requests go out in chunks of this many keys, so that no message grows with the
// configuration and other sessions are served in between.
constexpr int kObjectsPerRequest = 4096;

// Input a connection may hold without charge to the input budget: any small request.
constexpr size_t kFreeInput = 64u << 10;

std::string Errno(const std::string& what) {
  return what + ": " + std::strerror(errno);
}

}  // namespace

struct Server::Impl {
  struct Subscription {
    int32_t priority;
    std::vector<uint32_t> tags;  // the path's tags, root-most first
  };

  struct Session {
    Impl* server;
    uint64_t id;
    int fd = -1;
    sd_event_source* io = nullptr;
    FramedStream stream;
    size_t charged = 0;                     // of the input budget
    sd_event_source* incomplete = nullptr;  // the frame timeout, while input is incomplete
    bool attached = false;
    std::string app;
    pid_t pid = 0;
    std::string trace;  // its trace levels, as it attached and as changed since
    std::vector<Subscription> subscriptions;
    std::vector<std::string> callpoints;
  };

  // A commit answered once every subscriber it went to has acknowledged it.
  struct PendingCommit {
    uint64_t session;
    uint64_t request;
    std::set<uint64_t> waiting;
    sd_event_source* timer = nullptr;
  };

  // An operational view being collected from a callpoint.
  struct PendingView {
    uint64_t session;
    uint64_t request;
    uint64_t provider;
    std::vector<Value> keys;
    std::unique_ptr<OperationalView> view;
    int outstanding = 0;
    std::string errors;
  };

  struct ResolvedBinding {
    std::string callpoint;
    const lysc_node* list;
    const lysc_node* keysFrom;
    std::vector<KeypathElement> listKeypath;
  };

  sd_event* event;
  ServerOptions options;
  pbr::yang::Context ctx;
  SchemaInfo schemaInfo;
  std::unique_ptr<Datastore> store;
  std::unique_ptr<RunningStore> persisted;
  sd_event_source* compaction = nullptr;
  std::vector<ResolvedBinding> bindings;
  int lockFd = -1;
  int listenFd = -1;
  sd_event_source* listenSource = nullptr;
  uint64_t nextSession = 1;
  std::map<uint64_t, std::unique_ptr<Session>> sessions;
  size_t bufferedInput = 0;  // charged to the input budget, over every session
  // Sessions with complete messages left over from their turn, served by `backlog`.
  std::set<uint64_t> backlogged;
  sd_event_source* backlog = nullptr;
  uint64_t seq = 0;
  std::map<uint64_t, PendingCommit> commits;  // by commit seq
  uint64_t nextObjectsRequest = 1;
  std::map<uint64_t, PendingView> views;                         // by view id
  std::map<uint64_t, std::pair<uint64_t, int>> objectsRequests;  // request -> view, first key

  ~Impl() {
    for (auto& [seqNo, pending] : commits) sd_event_source_unref(pending.timer);
    for (auto& [id, session] : sessions) {
      sd_event_source_unref(session->io);
      sd_event_source_unref(session->incomplete);
      ::close(session->fd);
    }
    sd_event_source_unref(backlog);
    sd_event_source_unref(compaction);
    sd_event_source_unref(listenSource);
    if (listenFd >= 0) ::close(listenFd);
    if (lockFd >= 0) ::close(lockFd);
  }

  bool Init(std::string* error);
  bool Listen(std::string* error);

  static int OnAccept(sd_event_source*, int fd, uint32_t, void* userdata);
  static int OnSessionIo(sd_event_source*, int fd, uint32_t revents, void* userdata);
  static int OnAckTimeout(sd_event_source*, uint64_t, void* userdata);
  static int OnCompact(sd_event_source*, void* userdata);
  static int OnBacklog(sd_event_source*, void* userdata);
  static int OnIncomplete(sd_event_source*, uint64_t, void* userdata);

  void Accept();
  void HandleIo(Session& session, uint32_t revents);
  // Handles the complete messages read, up to a turn's worth; false when the session closed.
  bool HandleFrames(Session& session, bool all);
  // Charges the session's incomplete input to the budget and times it; false when it closed.
  bool CheckInput(Session& session, bool progressed);
  // Answers with `why`, logged, and closes the session.
  void Refuse(Session& session, const std::string& why);
  void HandleMessage(Session& session, const std::string& payload);
  void Send(Session& session, const ServerMessage& message);
  // Sends an encoded message that leaves FramedStream::kHeaderSize bytes in front.
  void SendFrame(Session& session, std::string frame);
  void UpdateEvents(Session& session);
  void Close(uint64_t sessionId);
  void Respond(Session& session, uint64_t request, const CommitError* error, std::string data = {});
  void RespondTo(uint64_t sessionId, uint64_t request, const CommitError* error,
                 std::string data = {});

  void HandleAttach(Session& session, uint64_t request, const Attach& attach);
  void HandleCommit(Session& session, uint64_t request, std::unique_ptr<Candidate> candidate);
  void HandleAck(Session& session, uint64_t seqNo);
  void HandleGetOperational(Session& session, uint64_t request, const GetOperational& get);
  void HandleDataReply(Session& session, const DataReply& reply);
  void HandleDebug(Session& session, uint64_t request, const Debug& debug);
  void FinishCommitIfDone(uint64_t seqNo);
  void FinishViewIfDone(uint64_t viewId);
};

bool Server::Impl::Init(std::string* error) {
  ctx = pbr::yang::LoadContext(error);
  if (!ctx) return false;
  // libyang's messages are taken from the context for each refusal, not printed.
  ly_log_options(LY_LOSTORE_LAST);
  if (!schemaInfo.Annotate(ctx.get(), pbr::pbr__ns, error)) return false;
  store = std::make_unique<Datastore>(ctx.get());
  for (const CallpointBinding& b : kCallpoints) {
    DataPath list, keys;
    if (!ParseDataPath(store->module(), b.list, &list, error) ||
        !ParseDataPath(store->module(), b.keysFrom, &keys, error)) {
      return false;
    }
    ResolvedBinding resolved{b.callpoint, list.target, keys.target, {}};
    for (const lysc_node* n = list.target; n; n = n->parent) {
      KeypathElement e;
      SetTagElement(n, &e);
      resolved.listKeypath.insert(resolved.listKeypath.begin(), e);
    }
    bindings.push_back(std::move(resolved));
  }

  persisted = std::make_unique<RunningStore>(options.stateDir);
  if (!persisted->Load(store.get(), error)) return false;
  // A value stored before its byte limit was enforced would fail every attach of the daemons
  // that read it: it is cut to fit, and what it held is logged.
  std::vector<CutValue> cut;
  CommitError unfit;
  if (!store->FitStored(&cut, &unfit)) {
    *error = persisted->path() + ": " + unfit.path + ": " + unfit.message;
    return false;
  }
  for (const CutValue& value : cut) {
    vqmw::Logger().warn(
        "stored configuration: {} is longer than its limit in bytes; cut from "
        "'{}' to '{}'",
        value.path, value.original, value.kept);
  }
  return Listen(error);
}

bool Server::Impl::Listen(std::string* error) {
  std::error_code ec;
  std::filesystem::create_directories(options.runtimeDir, ec);
  const std::string lockPath = options.runtimeDir + "/mgmt.lock";
  lockFd = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0660);
  if (lockFd < 0) {
    *error = Errno("cannot open " + lockPath);
    return false;
  }
  if (::flock(lockFd, LOCK_EX | LOCK_NB) != 0) {
    *error = "another management server runs on " + options.runtimeDir;
    return false;
  }
  const std::string path = options.runtimeDir + "/mgmt.sock";
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.size() >= sizeof addr.sun_path) {
    *error = "socket path too long: " + path;
    return false;
  }
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  listenFd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (listenFd < 0) {
    *error = Errno("cannot create the socket");
    return false;
  }
  ::unlink(path.c_str());  // left by a server that ended; the lock shows none runs now
  if (::bind(listenFd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      ::chmod(path.c_str(), 0660) != 0 || ::listen(listenFd, 64) != 0) {
    *error = Errno("cannot listen on " + path);
    return false;
  }
  if (sd_event_add_io(event, &listenSource, listenFd, EPOLLIN, OnAccept, this) < 0) {
    *error = "cannot watch the socket";
    return false;
  }
  return true;
}

int Server::Impl::OnAccept(sd_event_source*, int, uint32_t, void* userdata) {
  static_cast<Impl*>(userdata)->Accept();
  return 0;
}

void Server::Impl::Accept() {
  for (;;) {
    const int fd = ::accept4(listenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
      if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
        vqmw::Logger().warn("accept: {}", std::strerror(errno));
      }
      return;
    }
    // The socket's mode admits the owner and the group; the credentials say so again for
    // sockets reached by other means (an inherited descriptor, a changed mode).
    ucred cred{};
    socklen_t len = sizeof cred;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0 ||
        (cred.uid != 0 && cred.uid != ::geteuid() && cred.gid != ::getegid())) {
      vqmw::Logger().warn("refused a client with uid {} gid {}", cred.uid, cred.gid);
      ::close(fd);
      continue;
    }
    auto session = std::make_unique<Session>();
    session->server = this;
    session->id = nextSession++;
    session->fd = fd;
    session->pid = cred.pid;
    if (sd_event_add_io(event, &session->io, fd, EPOLLIN, OnSessionIo, session.get()) < 0) {
      ::close(fd);
      continue;
    }
    sessions.emplace(session->id, std::move(session));
  }
}

int Server::Impl::OnSessionIo(sd_event_source*, int, uint32_t revents, void* userdata) {
  auto* session = static_cast<Session*>(userdata);
  session->server->HandleIo(*session, revents);
  return 0;
}

void Server::Impl::HandleIo(Session& session, uint32_t revents) {
  const uint64_t id = session.id;
  if (revents & EPOLLOUT) {
    if (session.stream.WriteTo(session.fd) == FramedStream::Io::kError) {
      Close(id);
      return;
    }
  }
  if (revents & (EPOLLIN | EPOLLHUP | EPOLLERR)) {
    // Level-triggered: input left in the socket brings the session back on a later turn, after
    // the others.
    const FramedStream::Io io = session.stream.ReadFrom(session.fd, options.readPerTurn);
    const size_t before = session.stream.BufferedInput();
    // A peer that has ended gets answers to everything it sent.
    if (!HandleFrames(session, io != FramedStream::Io::kOk)) return;
    if (io != FramedStream::Io::kOk) {
      Close(id);
      return;
    }
    if (!CheckInput(session, session.stream.BufferedInput() < before)) return;
  }
  UpdateEvents(session);
}

bool Server::Impl::HandleFrames(Session& session, bool all) {
  const uint64_t id = session.id;
  std::string payload;
  for (int handled = 0; all || handled < options.messagesPerTurn; ++handled) {
    const FramedStream::Frame frame = session.stream.Next(&payload);
    if (frame == FramedStream::Frame::kIncomplete) return true;
    if (frame == FramedStream::Frame::kOversized) {
      Refuse(session, "message too large: over " + std::to_string(kMaxFrameSize) + " bytes");
      return false;
    }
    HandleMessage(session, payload);
    if (!sessions.count(id)) return false;
  }
  if (session.stream.HasFrame()) {
    backlogged.insert(id);
    if (!backlog) sd_event_add_defer(event, &backlog, OnBacklog, this);
    sd_event_source_set_enabled(backlog, SD_EVENT_ONESHOT);
  }
  return true;
}

int Server::Impl::OnBacklog(sd_event_source*, void* userdata) {
  auto* impl = static_cast<Impl*>(userdata);
  std::set<uint64_t> ids;
  ids.swap(impl->backlogged);
  for (uint64_t id : ids) {
    auto it = impl->sessions.find(id);
    if (it == impl->sessions.end()) continue;
    Session& session = *it->second;
    if (impl->HandleFrames(session, false) && impl->CheckInput(session, true)) {
      impl->UpdateEvents(session);
    }
  }
  return 0;
}

bool Server::Impl::CheckInput(Session& session, bool progressed) {
  const size_t buffered = session.stream.BufferedInput();
  const size_t charge = buffered > kFreeInput ? buffered - kFreeInput : 0;
  bufferedInput = bufferedInput - session.charged + charge;
  session.charged = charge;
  if (bufferedInput > options.inputBudget) {
    Refuse(session, "incomplete messages over the server's input budget of " +
                        std::to_string(options.inputBudget) + " bytes");
    return false;
  }
  if (buffered == 0) {
    session.incomplete = sd_event_source_disable_unref(session.incomplete);
    return true;
  }
  // The timeout runs from the start of the message now incomplete.
  const uint64_t usec =
      std::chrono::duration_cast<std::chrono::microseconds>(options.frameTimeout).count();
  if (!session.incomplete) {
    sd_event_add_time_relative(event, &session.incomplete, CLOCK_MONOTONIC, usec, 0, OnIncomplete,
                               &session);
  } else if (progressed) {
    sd_event_source_set_time_relative(session.incomplete, usec);
    sd_event_source_set_enabled(session.incomplete, SD_EVENT_ONESHOT);
  }
  return true;
}

int Server::Impl::OnIncomplete(sd_event_source*, uint64_t, void* userdata) {
  auto& session = *static_cast<Session*>(userdata);
  session.server->Refuse(session, "message incomplete for over " +
                                      std::to_string(session.server->options.frameTimeout.count()) +
                                      " ms (" + std::to_string(session.stream.BufferedInput()) +
                                      " bytes received)");
  return 0;
}

void Server::Impl::Refuse(Session& session, const std::string& why) {
  vqmw::Logger().warn("session {}{}: {}, closing", session.id,
                      session.app.empty() ? "" : " (" + session.app + ")", why);
  CommitError error{why, ""};
  Respond(session, 0, &error);
  session.stream.WriteTo(session.fd);
  Close(session.id);
}

void Server::Impl::UpdateEvents(Session& session) {
  sd_event_source_set_io_events(session.io, EPOLLIN | (session.stream.HasOutput() ? EPOLLOUT : 0u));
}

void Server::Impl::SendFrame(Session& session, std::string frame) {
  session.stream.QueueFrame(std::move(frame));
  if (session.stream.WriteTo(session.fd) == FramedStream::Io::kError) return;
  UpdateEvents(session);
}

void Server::Impl::Send(Session& session, const ServerMessage& message) {
  session.stream.Queue(message);
  if (session.stream.WriteTo(session.fd) == FramedStream::Io::kError) {
    // The read side notices the broken connection and closes the session.
    return;
  }
  UpdateEvents(session);
}

void Server::Impl::Respond(Session& session, uint64_t request, const CommitError* error,
                           std::string data) {
  ServerMessage message;
  Response* response = message.mutable_response();
  response->set_id(request);
  response->set_ok(error == nullptr);
  if (error) {
    response->mutable_error()->set_message(error->message);
    response->mutable_error()->set_path(error->path);
  }
  response->set_data(std::move(data));
  Send(session, message);
}

void Server::Impl::RespondTo(uint64_t sessionId, uint64_t request, const CommitError* error,
                             std::string data) {
  auto it = sessions.find(sessionId);
  if (it != sessions.end()) Respond(*it->second, request, error, std::move(data));
}

void Server::Impl::Close(uint64_t sessionId) {
  auto it = sessions.find(sessionId);
  if (it == sessions.end()) return;
  std::unique_ptr<Session> session = std::move(it->second);
  sessions.erase(it);
  bufferedInput -= session->charged;
  backlogged.erase(sessionId);
  sd_event_source_unref(session->incomplete);
  sd_event_source_unref(session->io);
  ::close(session->fd);
  if (session->attached) vqmw::Logger().info("{} detached", session->app);

  std::vector<uint64_t> done;
  for (auto& [seqNo, pending] : commits) {
    if (pending.waiting.erase(sessionId)) done.push_back(seqNo);
  }
  for (uint64_t seqNo : done) FinishCommitIfDone(seqNo);

  std::vector<uint64_t> failed;
  for (auto& [viewId, view] : views) {
    if (view.provider == sessionId) failed.push_back(viewId);
  }
  for (uint64_t viewId : failed) {
    PendingView& view = views.at(viewId);
    CommitError error{"the daemon serving the view went away", ""};
    RespondTo(view.session, view.request, &error);
    views.erase(viewId);
  }
  std::erase_if(objectsRequests, [&](const auto& r) { return !views.count(r.second.first); });
}

void Server::Impl::HandleMessage(Session& session, const std::string& payload) {
  ClientMessage message;
  if (!message.ParseFromString(payload)) {
    CommitError error{"malformed message", ""};
    Respond(session, 0, &error);
    return;
  }
  const uint64_t request = message.id();
  CommitError error;
  switch (message.body_case()) {
    case ClientMessage::kAttach:
      HandleAttach(session, request, message.attach());
      return;
    case ClientMessage::kCommitAck:
      HandleAck(session, message.commit_ack().seq());
      return;
    case ClientMessage::kDataReply:
      HandleDataReply(session, message.data_reply());
      return;
    case ClientMessage::kEdit:
    case ClientMessage::kLoad: {
      auto candidate = message.has_edit()
                           ? store->Prepare(message.edit(), &error)
                           : store->Prepare(std::move(*message.mutable_load()), &error);
      if (!candidate) {
        Respond(session, request, &error);
        return;
      }
      HandleCommit(session, request, std::move(candidate));
      return;
    }
    case ClientMessage::kGetRunning:
      Respond(session, request, nullptr, store->RunningJson());
      return;
    case ClientMessage::kGetOperational:
      HandleGetOperational(session, request, message.get_operational());
      return;
    case ClientMessage::kDebug:
      HandleDebug(session, request, message.debug());
      return;
    case ClientMessage::BODY_NOT_SET:
      break;
  }
  error = {"unknown request", ""};
  Respond(session, request, &error);
}

void Server::Impl::HandleAttach(Session& session, uint64_t request, const Attach& attach) {
  if (session.attached) {
    CommitError error{"already attached", ""};
    Respond(session, request, &error);
    return;
  }
  std::vector<Subscription> subscriptions;
  for (const pbr::mgmt::Subscription& sub : attach.subscription()) {
    DataPath path;
    std::string why;
    if (!ParseDataPath(store->module(), sub.path(), &path, &why) || !path.entryPath.empty()) {
      CommitError error{"bad subscription path" + (why.empty() ? "" : ": " + why), sub.path()};
      Respond(session, request, &error);
      return;
    }
    Subscription resolved{sub.priority(), {}};
    for (const lysc_node* n = path.target; n; n = n->parent) {
      if (!(n->nodetype & (LYS_CHOICE | LYS_CASE))) {
        resolved.tags.insert(resolved.tags.begin(), SchemaInfo::Of(n).tag);
      }
    }
    subscriptions.push_back(std::move(resolved));
  }
  for (const std::string& name : attach.callpoint()) {
    const bool known = std::any_of(bindings.begin(), bindings.end(),
                                   [&](const ResolvedBinding& b) { return b.callpoint == name; });
    const bool taken = std::any_of(sessions.begin(), sessions.end(), [&](const auto& s) {
      const auto& cps = s.second->callpoints;
      return std::find(cps.begin(), cps.end(), name) != cps.end();
    });
    if (!known || taken) {
      CommitError error{(known ? "callpoint already served: " : "unknown callpoint: ") + name, ""};
      Respond(session, request, &error);
      return;
    }
  }
  session.attached = true;
  session.app = attach.app_name();
  session.trace = attach.trace();
  session.subscriptions = std::move(subscriptions);
  session.callpoints.assign(attach.callpoint().begin(), attach.callpoint().end());
  vqmw::Logger().info("{} attached: {} subscriptions, {} callpoints", session.app,
                      session.subscriptions.size(), session.callpoints.size());

  SendFrame(session, store->AttachMessage(seq, FramedStream::kHeaderSize));
}

void Server::Impl::HandleCommit(Session& session, uint64_t request,
                                std::unique_ptr<Candidate> candidate) {
  const uint64_t seqNo = ++seq;
  // Subscribers hear of the commit in the order of their lowest subscription priority.
  std::vector<std::pair<int32_t, Session*>> order;
  for (auto& [id, s] : sessions) {
    if (!s->attached || s->subscriptions.empty()) continue;
    int32_t lowest = s->subscriptions[0].priority;
    for (const Subscription& sub : s->subscriptions) lowest = std::min(lowest, sub.priority);
    order.emplace_back(lowest, s.get());
  }
  std::stable_sort(order.begin(), order.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  // The changes refer into the running and the candidate trees, so they go out before Apply;
  // with nobody to hear of them they are not worked out at all.
  ChangeList changes;
  if (!order.empty()) store->Diff(*candidate, &changes);
  PendingCommit pending{session.id, request, {}, nullptr};
  for (auto& [priority, subscriber] : order) {
    std::vector<ChangeList::Delivery> deliveries;
    for (size_t i = 0; i < subscriber->subscriptions.size(); ++i) {
      // A change with nothing enclosing it takes its subtree along: subscription paths end
      // above list entries, so subtrees never straddle them.
      ChangeList::Delivery delivery{static_cast<uint32_t>(i), {}};
      for (size_t c = 0; c < changes.size();) {
        const size_t end = c + 1 + changes.descendants(c);
        if (changes.Under(c, subscriber->subscriptions[i].tags)) {
          if (!delivery.ranges.empty() && delivery.ranges.back().second == c) {
            delivery.ranges.back().second = end;
          } else {
            delivery.ranges.emplace_back(c, end);
          }
        }
        c = end;
      }
      if (!delivery.ranges.empty()) deliveries.push_back(std::move(delivery));
    }
    if (deliveries.empty()) continue;
    SendFrame(*subscriber, changes.CommitMessage(seqNo, deliveries, FramedStream::kHeaderSize));
    pending.waiting.insert(subscriber->id);
  }

  JournalRecord record = store->Record(candidate.get());
  store->Apply(std::move(candidate));
  std::string why;
  const bool saved = persisted->Append(std::move(record), &why);
  if (saved && persisted->CompactionDue() && !compaction) {
    // Rewriting the whole configuration waits until the commit has been answered.
    sd_event_add_defer(event, &compaction, OnCompact, this);
  }
  if (!saved) {
    vqmw::Logger().error("the running configuration is not saved: {}", why);
    CommitError error{"committed, but not saved: " + why, ""};
    Respond(session, request, &error);
  }
  if (!saved || pending.waiting.empty()) {
    if (saved) Respond(session, request, nullptr);
    return;
  }
  sd_event_add_time_relative(
      event, &pending.timer, CLOCK_MONOTONIC,
      std::chrono::duration_cast<std::chrono::microseconds>(options.ackTimeout).count(), 0,
      OnAckTimeout, this);
  commits.emplace(seqNo, std::move(pending));
}

int Server::Impl::OnCompact(sd_event_source*, void* userdata) {
  auto* impl = static_cast<Impl*>(userdata);
  impl->compaction = sd_event_source_unref(impl->compaction);
  std::string why;
  if (!impl->persisted->Compact(*impl->store, &why)) {
    // The journal still holds every commit; the next commit tries again.
    vqmw::Logger().error("cannot compact the running configuration: {}", why);
  }
  return 0;
}

int Server::Impl::OnAckTimeout(sd_event_source* source, uint64_t, void* userdata) {
  auto* impl = static_cast<Impl*>(userdata);
  for (auto& [seqNo, pending] : impl->commits) {
    if (pending.timer != source) continue;
    vqmw::Logger().warn("commit {}: {} subscribers did not acknowledge in time", seqNo,
                        pending.waiting.size());
    pending.waiting.clear();
    impl->FinishCommitIfDone(seqNo);
    break;
  }
  return 0;
}

void Server::Impl::HandleAck(Session& session, uint64_t seqNo) {
  std::vector<uint64_t> done;
  for (auto& [pendingSeq, pending] : commits) {
    if (pendingSeq <= seqNo && pending.waiting.erase(session.id)) done.push_back(pendingSeq);
  }
  for (uint64_t s : done) FinishCommitIfDone(s);
}

void Server::Impl::FinishCommitIfDone(uint64_t seqNo) {
  auto it = commits.find(seqNo);
  if (it == commits.end() || !it->second.waiting.empty()) return;
  RespondTo(it->second.session, it->second.request, nullptr);
  sd_event_source_unref(it->second.timer);
  commits.erase(it);
}

void Server::Impl::HandleGetOperational(Session& session, uint64_t request,
                                        const GetOperational& get) {
  const ResolvedBinding& binding = bindings.front();
  Session* provider = nullptr;
  for (auto& [id, s] : sessions) {
    const auto& cps = s->callpoints;
    if (std::find(cps.begin(), cps.end(), binding.callpoint) != cps.end()) provider = s.get();
  }
  if (!provider) {
    CommitError error{"no daemon serves " + binding.callpoint, ""};
    Respond(session, request, &error);
    return;
  }
  PendingView view{session.id, request, provider->id, {}, nullptr, 0, {}};
  for (const lyd_node* entry : store->Entries(binding.keysFrom)) {
    Value key;
    SetValue(lyd_child(entry), &key);
    if (get.has_id() && key.text() != std::to_string(get.id())) continue;
    view.keys.push_back(std::move(key));
  }
  if (get.has_id() && view.keys.empty()) {
    CommitError error{"no rule " + std::to_string(get.id()), ""};
    Respond(session, request, &error);
    return;
  }
  view.view = std::make_unique<OperationalView>(ctx.get(), binding.list);
  const uint64_t viewId = nextObjectsRequest;
  for (size_t first = 0; first < view.keys.size(); first += kObjectsPerRequest) {
    const uint64_t requestId = nextObjectsRequest++;
    ServerMessage message;
    GetObjects* objects = message.mutable_get_objects();
    objects->set_request(requestId);
    objects->set_callpoint(binding.callpoint);
    for (const KeypathElement& e : binding.listKeypath) *objects->add_list_keypath() = e;
    const size_t last = std::min(view.keys.size(), first + kObjectsPerRequest);
    for (size_t i = first; i < last; ++i) *objects->add_key() = view.keys[i];
    objectsRequests[requestId] = {viewId, static_cast<int>(first)};
    ++view.outstanding;
    Send(*provider, message);
  }
  if (view.outstanding == 0) ++nextObjectsRequest;
  views.emplace(viewId, std::move(view));
  FinishViewIfDone(viewId);
}

void Server::Impl::HandleDataReply(Session& session, const DataReply& reply) {
  auto it = objectsRequests.find(reply.request());
  if (it == objectsRequests.end()) return;
  const auto [viewId, first] = it->second;
  objectsRequests.erase(it);
  PendingView& view = views.at(viewId);
  if (view.provider != session.id) return;
  for (int i = 0; i < reply.object_size(); ++i) {
    const size_t k = static_cast<size_t>(first + i);
    if (k >= view.keys.size()) break;
    const ObjectReply& object = reply.object(i);
    std::string why = object.error();
    if (object.replied() && view.view->Add(view.keys[k], object, &why)) continue;
    if (why.empty()) why = "no reply";
    view.errors += (view.errors.empty() ? "" : "; ") + view.keys[k].text() + ": " + why;
  }
  --view.outstanding;
  FinishViewIfDone(viewId);
}

void Server::Impl::HandleDebug(Session& session, uint64_t request, const Debug& debug) {
  if (debug.has_levels()) {
    // The server's own levels first: a malformed change is refused before it goes anywhere.
    std::string why;
    if (!vqmw::ChangeTrace(debug.levels(), &why)) {
      CommitError error{why, ""};
      Respond(session, request, &error);
      return;
    }
    const vqmw::TraceConfig change = vqmw::TraceConfig::Parse(debug.levels(), nullptr);
    ServerMessage message;
    message.mutable_trace_levels()->set_levels(debug.levels());
    for (auto& [id, s] : sessions) {
      if (!s->attached) continue;
      vqmw::TraceConfig levels = vqmw::TraceConfig::Parse(s->trace, nullptr);
      levels.Apply(change);
      s->trace = levels.Text();
      Send(*s, message);
    }
  }
  std::string text = "pbr-mgmtd: " + vqmw::TraceText() + "\n";
  for (auto& [id, s] : sessions) {
    if (s->attached) text += s->app + " (pid " + std::to_string(s->pid) + "): " + s->trace + "\n";
  }
  Respond(session, request, nullptr, std::move(text));
}

void Server::Impl::FinishViewIfDone(uint64_t viewId) {
  auto it = views.find(viewId);
  if (it == views.end() || it->second.outstanding > 0) return;
  PendingView& view = it->second;
  if (view.errors.empty()) {
    RespondTo(view.session, view.request, nullptr, view.view->Json());
  } else {
    // The entries that could be shown are, with the reasons for those that could not.
    CommitError error{"entries left out: " + view.errors, ""};
    RespondTo(view.session, view.request, &error, view.view->Json());
  }
  views.erase(it);
}

Server::Server(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

Server::~Server() = default;

std::unique_ptr<Server> Server::Create(sd_event* event, const ServerOptions& options,
                                       std::string* error) {
  auto impl = std::make_unique<Impl>();
  impl->event = event;
  impl->options = options;
  if (!impl->Init(error)) return nullptr;
  return std::unique_ptr<Server>(new Server(std::move(impl)));
}

}  // namespace pbr::mgmt
