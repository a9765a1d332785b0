#include "element/mgmt/server.h"

#include <errno.h>
#include <fcntl.h>
#include <google/protobuf/arena.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <pwd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <vector>

#include "common/pbr_schema.h"
#include "element/mgmt/change_text.h"
#include "element/mgmt/commit_history.h"
#include "element/mgmt/data_path.h"
#include "element/mgmt/datastore.h"
#include "element/mgmt/framing.h"
#include "element/mgmt/json_text.h"
#include "element/mgmt/operational.h"
#include "element/mgmt/running_store.h"
#include "element/mgmt/schema_info.h"
#include "element/mgmt/session_candidate.h"
#include "element/middleware/log.h"
#include "element/middleware/trace_config.h"
#include "element/yang/module.h"

namespace pbr::mgmt {
namespace {

// A daemon's socket takes a bulk commit's changes at once where the kernel lets it, so that the
// daemon reads them while the loop goes on to journal the commit; otherwise the daemon waits
// for the loop to come back to the socket.
void WidenSendBuffer(int fd) {
  int size = 64 << 20;
  if (::setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &size, sizeof size) != 0) {
    ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);  // up to net.core.wmem_max
  }
}

// The operational lists and the callpoints that serve them: one get-object request per entry
// of the configuration list `keysFrom`.
struct CallpointBinding {
  const char* callpoint;
  const char* list;
  const char* keysFrom;
};
constexpr CallpointBinding kCallpoints[] = {{"show_pbr", "/router/pbr-status", "/router/pbr"}};

// An element-owned callpoint: the PBR manager's status reasons, asked for the same keys and
// merged into each entry's `rule` as `hw-reason`. The view is whole without it.
constexpr const char* kReasonCallpoint = "pbr_hw_reason";

// Get-object requests go out in chunks of this many keys, so that no message grows with the
// configuration and other sessions are served in between.
constexpr int kObjectsPerRequest = 512;

// How long a confirmed commit left unconfirmed by a restart waits for a daemon to attach before
// it is undone (microseconds).
constexpr uint64_t kRestartGrace = 5'000'000;
// Input a connection may hold without charge to the input budget: any small request.
constexpr size_t kFreeInput = 64u << 10;

std::string Errno(const std::string& what) {
  return what + ": " + std::strerror(errno);
}

std::string UserName(uid_t uid) {
  passwd entry{};
  passwd* found = nullptr;
  char buffer[1024];
  if (::getpwuid_r(uid, &entry, buffer, sizeof buffer, &found) == 0 && found) return found->pw_name;
  return std::to_string(uid);
}

std::string IsoTime(int64_t seconds) {
  const time_t t = static_cast<time_t>(seconds);
  tm utc{};
  gmtime_r(&t, &utc);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return text;
}

// A copy of `entry` with its parents, linked into `*tree`.
void CopyEntry(lyd_node** tree, const lyd_node* entry) {
  lyd_node* copy = nullptr;
  if (lyd_dup_single(entry, nullptr, LYD_DUP_RECURSIVE | LYD_DUP_WITH_FLAGS | LYD_DUP_WITH_PARENTS,
                     &copy) != LY_SUCCESS) {
    return;
  }
  while (lyd_parent(copy)) copy = lyd_parent(copy);
  if (!*tree) {
    *tree = copy;
  } else {
    lyd_merge_siblings(tree, copy, LYD_MERGE_DESTRUCT | LYD_MERGE_WITH_FLAGS);
  }
}

std::string Path(const lyd_node* node) {
  char* path = lyd_path(node, LYD_PATH_STD, nullptr, 0);
  std::string out = path ? path : "";
  free(path);
  return out;
}

struct TreeOwner {
  lyd_node* tree = nullptr;
  ~TreeOwner() { lyd_free_siblings(tree); }
};

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
    std::string user;            // from the peer's credentials
    std::string client = "cli";  // what the history records commits as made with
    uint32_t netconfId = 0;      // its NETCONF session, when it serves one
    bool inProcess = false;      // adopted: may take trees handed over in the process
    time_t login = 0;
    // For netconf-state: requests, malformed messages and refusals.
    uint32_t requests = 0;
    uint32_t malformed = 0;
    uint32_t refusals = 0;
    std::unique_ptr<SessionCandidate> candidate;  // created by the first candidate edit
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
    std::string data;  // the answer: the commit's id and counts
  };

  // Who commits, for the history and the log.
  struct CommitInfo {
    std::string client;
    std::string comment;
  };

  // An operational view being collected from a callpoint.
  struct PendingView {
    uint64_t session;
    uint64_t request;
    uint64_t provider;
    std::vector<Value> keys;
    std::unique_ptr<OperationalView> view;
    bool xml = false;
    int outstanding = 0;
    std::string errors;
    std::vector<size_t> entries;       // by key index; OperationalView::kNone when left out
    std::vector<std::string> reasons;  // by key index
    uint64_t reasonsProvider = 0;
  };
  struct ObjectsRequest {
    uint64_t view;
    int first;  // index of its first key
    bool reasons;
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
  std::unique_ptr<CommitHistory> history;
  // Sessions holding the locks of the running configuration and of the candidates (0: none).
  uint64_t runningLock = 0;
  uint64_t candidateLock = 0;
  time_t runningLockSince = 0;
  time_t candidateLockSince = 0;
  CommitObserver* observer = nullptr;
  sd_event_source* compaction = nullptr;
  std::vector<ResolvedBinding> bindings;
  int lockFd = -1;
  int listenFd = -1;
  std::string socketPath;  // set once bound: removed on exit, while the lock is still held
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
  std::map<uint64_t, PendingView> views;               // by view id
  std::map<uint64_t, ObjectsRequest> objectsRequests;  // by request
  // Sessions handed over by other threads (AdoptSession), set up when the eventfd wakes the loop.
  struct Adoption {
    int fd;
    std::string user;
    std::string client;
    uint32_t netconfId;
  };
  std::mutex adoptMutex;
  std::vector<Adoption> adoptions;
  // Trees of list entries handed over by in-process sessions for their next SetEntries.
  std::mutex handOffMutex;
  std::map<uint64_t, lyd_node*> handedOff;
  uint64_t lastHandOff = 0;
  int adoptFd = -1;
  sd_event_source* adoptSource = nullptr;

  ~Impl() {
    for (auto& [token, tree] : handedOff) lyd_free_siblings(tree);
    sd_event_source_unref(adoptSource);
    if (adoptFd >= 0) ::close(adoptFd);
    for (Adoption& a : adoptions) ::close(a.fd);
    for (auto& [seqNo, pending] : commits) sd_event_source_unref(pending.timer);
    if (confirmation) sd_event_source_unref(confirmation->timer);
    for (auto& [id, session] : sessions) {
      sd_event_source_unref(session->io);
      sd_event_source_unref(session->incomplete);
      ::close(session->fd);
    }
    sd_event_source_unref(backlog);
    sd_event_source_unref(compaction);
    sd_event_source_unref(listenSource);
    if (listenFd >= 0) ::close(listenFd);
    // A socket left behind would refuse the connections of clients that start before the next
    // server listens.
    if (!socketPath.empty()) ::unlink(socketPath.c_str());
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
  static int OnAdopt(sd_event_source*, int fd, uint32_t, void* userdata);
  Session* AddSession(int fd, std::string user);
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
  // Applies a prepared commit; its id, or 0 when it was refused or changes nothing (answered
  // already).
  uint64_t HandleCommit(Session& session, uint64_t request, std::unique_ptr<Candidate> candidate,
                        const CommitInfo& info);
  void HandleCandidate(Session& session, uint64_t request, const CandidateRequest& req);
  // The session's candidate, made on first use; null, answered, when another session locked
  // the candidates.
  SessionCandidate* EditableCandidate(Session& session, uint64_t request);
  void HandleCandidateEdit(Session& session, uint64_t request, const CandidateEdit& edit);
  void HandleLock(Session& session, uint64_t request, const LockRequest& lock);
  void HandleGetRunning(Session& session, uint64_t request, const GetRunning& get);
  void HandleSetEntries(Session& session, uint64_t request, const SetEntries& set);
  // The keypath of an entry SetEntries names that a commit set or deleted after the read it
  // was worked out from; empty when none.
  std::string ChangedSinceRead(const Session& session, const SetEntries& set,
                               const lyd_node* tree) const;
  void HandleGetCommits(Session& session, uint64_t request, const GetCommits& get);
  void HandleRollback(Session& session, uint64_t request, const Rollback& rollback);
  // The refusal when another session holds `lock`; empty when the session may go on.
  std::string LockedBy(uint64_t lock, const Session& session, const char* what) const;
  // Who holds the locks, and with `sessions` the sessions NETCONF does not list, as GetLocks
  // answers.
  std::string LocksJson(bool sessions) const;
  // The notice of a commit about to be applied, for the observer.
  CommitNotice NoticeOf(const Candidate& candidate, const Session& session) const;
  CommitRecord RecordOf(const Candidate& candidate, const CommitInfo& info, const Session& session,
                        ChangeCounts* counts) const;
  // The running configuration as it stood right before commit `first`, as new versions of the
  // entries changed since and the paths of those to delete. False with *error when the history
  // does not reach back to it.
  bool StateBefore(uint64_t first, lyd_node** tree, std::vector<std::string>* deleted,
                   std::string* error) const;

  // A confirmed commit waiting for its confirmation.
  struct Confirmation {
    uint64_t session;
    std::string persist;
    uint64_t firstId;  // the first commit that its undoing reverts
    sd_event_source* timer = nullptr;
  };
  std::optional<Confirmation> confirmation;
  // Commits the server makes on its own (undoing a confirmed commit) are answered to nobody.
  Session system;

  std::string ConfirmPath() const { return options.stateDir + "/confirm.pending"; }
  // Arms or extends the confirmation window; remembers it on disk so that a restart undoes it.
  void ArmConfirmation(Session& session, const CandidateRequest& req, uint64_t firstId);
  void EndConfirmation();
  // Restores the configuration from before the confirmed commit, as a new commit.
  void UndoConfirmed(Session& session, uint64_t request, const std::string& why);
  static int OnConfirmTimeout(sd_event_source*, uint64_t, void* userdata);
  void HandleAck(Session& session, uint64_t seqNo);
  void HandleGetOperational(Session& session, uint64_t request, const GetOperational& get);
  void HandleDataReply(Session& session, const DataReply& reply);
  void HandleDebug(Session& session, uint64_t request, const Debug& debug);
  void HandleEndSession(Session& session, uint64_t request, uint32_t id);
  void FinishCommitIfDone(uint64_t seqNo);
  // Folds the journal into the stored configuration once it is due and no commit is pending.
  void CompactWhenIdle();
  void FinishViewIfDone(uint64_t viewId);
};

bool Server::Impl::Init(std::string* error) {
  ctx = pbr::yang::LoadContext(error);
  if (!ctx) return false;
  if (options.extendContext && !options.extendContext(ctx.get(), error)) return false;
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
  history = std::make_unique<CommitHistory>(options.stateDir, options.historySize);
  if (!history->Load(error)) return false;
  system.server = this;
  system.id = 0;
  system.user = "pbr-mgmtd";
  // A confirmed commit still waiting when the server stopped is undone once the first daemon
  // has attached, so that it hears the undoing as a commit: a re-attaching daemon applies the
  // snapshot it is given but drops nothing it holds. Without a daemon, after kRestartGrace.
  if (std::ifstream pending(ConfirmPath()); pending) {
    uint64_t firstId = 0;
    pending >> firstId;
    if (firstId > 0) {
      confirmation = Confirmation{system.id, {}, firstId, nullptr};
      sd_event_add_time_relative(event, &confirmation->timer, CLOCK_MONOTONIC, kRestartGrace, 0,
                                 OnConfirmTimeout, this);
    } else {
      ::unlink(ConfirmPath().c_str());
    }
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
  if (::bind(listenFd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) socketPath = path;
  if (socketPath.empty() || ::chmod(path.c_str(), 0660) != 0 || ::listen(listenFd, 64) != 0) {
    *error = Errno("cannot listen on " + path);
    return false;
  }
  if (sd_event_add_io(event, &listenSource, listenFd, EPOLLIN, OnAccept, this) < 0) {
    *error = "cannot watch the socket";
    return false;
  }
  adoptFd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (adoptFd < 0 || sd_event_add_io(event, &adoptSource, adoptFd, EPOLLIN, OnAdopt, this) < 0) {
    *error = "cannot watch the session hand-over";
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
    if (Session* session = AddSession(fd, UserName(cred.uid))) session->pid = cred.pid;
  }
}

Server::Impl::Session* Server::Impl::AddSession(int fd, std::string user) {
  auto session = std::make_unique<Session>();
  session->server = this;
  session->user = std::move(user);
  session->id = nextSession++;
  session->fd = fd;
  session->login = ::time(nullptr);
  if (sd_event_add_io(event, &session->io, fd, EPOLLIN, OnSessionIo, session.get()) < 0) {
    ::close(fd);
    return nullptr;
  }
  Session* added = session.get();
  sessions.emplace(added->id, std::move(session));
  return added;
}

int Server::Impl::OnAdopt(sd_event_source*, int fd, uint32_t, void* userdata) {
  auto* impl = static_cast<Impl*>(userdata);
  uint64_t count;
  [[maybe_unused]] const ssize_t n = ::read(fd, &count, sizeof count);
  std::vector<Adoption> taken;
  {
    std::lock_guard<std::mutex> guard(impl->adoptMutex);
    taken.swap(impl->adoptions);
  }
  for (Adoption& a : taken) {
    ::fcntl(a.fd, F_SETFL, ::fcntl(a.fd, F_GETFL) | O_NONBLOCK);
    if (Session* session = impl->AddSession(a.fd, std::move(a.user))) {
      session->client = std::move(a.client);
      session->netconfId = a.netconfId;
      session->inProcess = true;
    }
  }
  return 0;
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
  if (session.fd < 0) return;  // the server's own commits
  ServerMessage message;
  Response* response = message.mutable_response();
  response->set_id(request);
  response->set_ok(error == nullptr);
  if (error) {
    ++session.refusals;
    response->mutable_error()->set_message(error->message);
    response->mutable_error()->set_path(error->path);
  }
  response->set_data(std::move(data));
  response->set_generation(store->generation());
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
  // A session's locks end with it, however it ended.
  if (runningLock == sessionId) runningLock = 0;
  if (candidateLock == sessionId) candidateLock = 0;
  // As NETCONF has it: a confirmed commit without a persist id ends with its session.
  if (confirmation && confirmation->session == sessionId && confirmation->persist.empty()) {
    UndoConfirmed(system, 0, "its session ended");
  }

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
  std::erase_if(objectsRequests, [&](const auto& r) { return !views.count(r.second.view); });
  // Views go on without the reasons of a provider that went away.
  std::set<uint64_t> touched;
  std::erase_if(objectsRequests, [&](const auto& r) {
    PendingView& view = views.at(r.second.view);
    if (!r.second.reasons || view.reasonsProvider != sessionId) return false;
    --view.outstanding;
    touched.insert(r.second.view);
    return true;
  });
  for (uint64_t viewId : touched) FinishViewIfDone(viewId);
}

namespace {

// A copy of `load` on the heap that takes its document without copying it.
Load OffArena(Load* load) {
  std::string data;
  data.swap(*load->mutable_data());
  Load copy(*load);
  copy.mutable_data()->swap(data);
  return copy;
}

}  // namespace

void Server::Impl::HandleMessage(Session& session, const std::string& payload) {
  // In an arena: a daemon's view replies are thousands of small messages each, which the heap
  // would allocate and free one by one.
  google::protobuf::Arena arena;
  ClientMessage& message = *google::protobuf::Arena::CreateMessage<ClientMessage>(&arena);
  if (!message.ParseFromString(payload)) {
    ++session.malformed;
    CommitError error{"malformed message", ""};
    Respond(session, 0, &error);
    return;
  }
  const uint64_t request = message.id();
  ++session.requests;
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
      const bool dryRun = message.has_load() && message.load().dry_run();
      const CommitInfo info{message.has_edit() ? session.client : "load",
                            message.has_edit() ? message.edit().comment() : ""};
      if (const std::string locked = LockedBy(runningLock, session, "running configuration");
          !locked.empty() && !dryRun) {
        error = {locked, ""};
        Respond(session, request, &error);
        return;
      }
      auto candidate = message.has_edit()
                           ? store->Prepare(message.edit(), &error)
                           : store->Prepare(OffArena(message.mutable_load()), &error);
      if (!candidate) {
        Respond(session, request, &error);
        return;
      }
      if (dryRun) {
        const ChangeCounts counts = store->Count(*candidate);
        Respond(
            session, request, nullptr,
            nlohmann::json{
                {"added", counts.added}, {"changed", counts.changed}, {"deleted", counts.deleted}}
                .dump());
        return;
      }
      HandleCommit(session, request, std::move(candidate), info);
      return;
    }
    case ClientMessage::kCandidateEdit:
      HandleCandidateEdit(session, request, message.candidate_edit());
      return;
    case ClientMessage::kCandidate:
      HandleCandidate(session, request, message.candidate());
      return;
    case ClientMessage::kLock:
      HandleLock(session, request, message.lock());
      return;
    case ClientMessage::kGetCommits:
      HandleGetCommits(session, request, message.get_commits());
      return;
    case ClientMessage::kRollback:
      HandleRollback(session, request, message.rollback());
      return;
    case ClientMessage::kGetRunning:
      HandleGetRunning(session, request, message.get_running());
      return;
    case ClientMessage::kSetEntries:
      HandleSetEntries(session, request, message.set_entries());
      return;
    case ClientMessage::kGetLocks:
      Respond(session, request, nullptr, LocksJson(message.get_locks().sessions()));
      return;
    case ClientMessage::kGetOperational:
      HandleGetOperational(session, request, message.get_operational());
      return;
    case ClientMessage::kDebug:
      HandleDebug(session, request, message.debug());
      return;
    case ClientMessage::kEndSession:
      HandleEndSession(session, request, message.end_session().id());
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
  if (!subscriptions.empty()) WidenSendBuffer(session.fd);
  for (const std::string& name : attach.callpoint()) {
    const bool known = name == kReasonCallpoint ||
                       std::any_of(bindings.begin(), bindings.end(),
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
  if (confirmation && confirmation->session == system.id) {
    UndoConfirmed(system, 0, "the server restarted in its confirmation window");
  }
}

uint64_t Server::Impl::HandleCommit(Session& session, uint64_t request,
                                    std::unique_ptr<Candidate> candidate, const CommitInfo& info) {
  if (const std::string locked = LockedBy(runningLock, session, "running configuration");
      !locked.empty()) {
    CommitError error{locked, ""};
    Respond(session, request, &error);
    return 0;
  }
  ChangeCounts counts;
  const CommitRecord commitRecord = RecordOf(*candidate, info, session, &counts);
  if (counts.added + counts.changed + counts.deleted == 0) {
    // The running configuration stays as it is: nothing is recorded, announced or saved.
    Respond(session, request, nullptr,
            nlohmann::json{{"added", 0}, {"changed", 0}, {"deleted", 0}}.dump());
    return 0;
  }
  std::optional<CommitNotice> notice;
  if (observer && observer->Listening()) notice = NoticeOf(*candidate, session);
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
  PendingCommit pending{session.id, request, {}, nullptr, {}};
  pending.data = nlohmann::json{{"id", commitRecord.id()},
                                {"added", counts.added},
                                {"changed", counts.changed},
                                {"deleted", counts.deleted}}
                     .dump();
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
  CommitRecord entry = commitRecord;
  // Unless a replace's record holds just the entries it changed, its journal record is the after
  // side.
  if (!commitRecord.has_after()) *entry.mutable_after() = record;
  if (!history->Append(entry, &why)) {
    vqmw::Logger().error("commit {} is left out of the history: {}", entry.id(), why);
  }
  vqmw::Logger().info("commit {} by {} ({}): {} added, {} changed, {} deleted", entry.id(),
                      entry.user(), entry.client(), counts.added, counts.changed, counts.deleted);
  if (notice) observer->Committed(std::move(*notice));
  why.clear();
  const bool saved = persisted->Append(std::move(record), &why);
  if (!saved) {
    vqmw::Logger().error("the running configuration is not saved: {}", why);
    CommitError error{"committed, but not saved: " + why, ""};
    Respond(session, request, &error);
  }
  if (!saved || pending.waiting.empty()) {
    if (saved) Respond(session, request, nullptr, pending.data);
    CompactWhenIdle();
    return commitRecord.id();
  }
  sd_event_add_time_relative(
      event, &pending.timer, CLOCK_MONOTONIC,
      std::chrono::duration_cast<std::chrono::microseconds>(options.ackTimeout).count(), 0,
      OnAckTimeout, this);
  commits.emplace(seqNo, std::move(pending));
  return commitRecord.id();
}

CommitRecord Server::Impl::RecordOf(const Candidate& candidate, const CommitInfo& info,
                                    const Session& session, ChangeCounts* counts) const {
  CommitRecord record;
  record.set_id(history->NextId());
  record.set_time(static_cast<int64_t>(::time(nullptr)));
  record.set_user(session.user);
  record.set_client(info.client);
  record.set_comment(info.comment);
  std::vector<std::pair<const lyd_node*, const lyd_node*>> changes;
  store->ForEachChange(candidate, [&](const lyd_node* old, const lyd_node* entry) {
    if (!old) {
      ++counts->added;
      record.add_created(Path(entry));
    } else {
      ++(entry ? counts->changed : counts->deleted);
    }
    changes.emplace_back(old, entry);
  });
  // A replace keeps both whole configurations only when it changes many entries: copying entries
  // one by one costs more than printing the whole tree, and a replace of a large configuration
  // that changes a few entries must not cost a large record.
  constexpr size_t kEntriesCopiedAtMost = 4096;
  if (candidate.whole && changes.size() > kEntriesCopiedAtMost) {
    record.set_before_json(store->RunningJson(true));
    return record;  // the journal record, the whole new configuration, is the after side
  }
  TreeOwner before, after;
  for (const auto& [old, entry] : changes) {
    if (old) CopyEntry(&before.tree, old);
    if (!candidate.whole) continue;
    if (entry) {
      CopyEntry(&after.tree, entry);
    } else {
      record.mutable_after()->add_deleted(Path(old));
    }
  }
  record.set_before_json(PrintJson(before.tree, true));
  if (candidate.whole) record.mutable_after()->set_json(PrintJson(after.tree, true));
  return record;
}

CommitNotice Server::Impl::NoticeOf(const Candidate& candidate, const Session& session) const {
  CommitNotice notice;
  clock_gettime(CLOCK_REALTIME, &notice.time);
  notice.byServer = &session == &system;
  notice.user = session.user;
  notice.netconfSession = session.netconfId;
  notice.edits = NoticeEdits(*store, candidate);
  return notice;
}

namespace {

// How NETCONF knows a session: its NETCONF session id, or past kProtocolSessionBase.
uint32_t VisibleId(uint64_t id, uint32_t netconfId) {
  return netconfId ? netconfId
                   : kProtocolSessionBase + static_cast<uint32_t>(id % kProtocolSessionBase);
}

}  // namespace

std::string Server::Impl::LockedBy(uint64_t lock, const Session& session, const char* what) const {
  if (lock == 0 || lock == session.id) return {};
  auto holder = sessions.find(lock);
  if (holder == sessions.end()) {
    return std::string("the ") + what + " is locked by session " + std::to_string(lock);
  }
  const Session& s = *holder->second;
  return std::string("the ") + what + " is locked by " +
         (s.netconfId ? "NETCONF session " : "session ") +
         std::to_string(VisibleId(s.id, s.netconfId)) + " (user " + s.user + ", " + s.client + ")";
}

void Server::Impl::HandleEndSession(Session& session, uint64_t request, uint32_t id) {
  // Only the sessions GetLocks lists: NETCONF ends its own, and daemons are not operators'.
  auto it = std::find_if(sessions.begin(), sessions.end(), [&](const auto& entry) {
    const Session& s = *entry.second;
    return s.netconfId == 0 && !s.attached && VisibleId(s.id, 0) == id;
  });
  CommitError error;
  if (it == sessions.end() || it->first == session.id) {
    error = {it == sessions.end() ? "no session " + std::to_string(id)
                                  : std::string("a session cannot end itself"),
             ""};
    Respond(session, request, &error);
    return;
  }
  vqmw::Logger().info("session {} (user {}) ended session {} (user {})", session.id, session.user,
                      it->first, it->second->user);
  Close(it->first);
  Respond(session, request, nullptr);
}

std::string Server::Impl::LocksJson(bool withSessions) const {
  nlohmann::json locks = nlohmann::json::object();
  auto add = [&](const char* name, uint64_t holder, time_t since) {
    auto it = sessions.find(holder);
    if (holder == 0 || it == sessions.end()) return;
    locks[name] = {{"session", holder},
                   {"id", VisibleId(holder, it->second->netconfId)},
                   {"netconf_session", it->second->netconfId},
                   {"user", it->second->user},
                   {"client", it->second->client},
                   {"since", static_cast<int64_t>(since)}};
  };
  add("running", runningLock, runningLockSince);
  add("candidate", candidateLock, candidateLockSince);
  if (!withSessions) return locks.dump();
  // Operator sessions only: NETCONF lists its own, and daemons hold no locks or candidates.
  nlohmann::json list = nlohmann::json::array();
  for (const auto& [id, s] : sessions) {
    if (s->netconfId != 0 || s->attached) continue;
    list.push_back({{"id", VisibleId(id, 0)},
                    {"user", s->user},
                    {"client", s->client},
                    {"pid", s->pid},
                    {"login", static_cast<int64_t>(s->login)},
                    {"requests", s->requests},
                    {"malformed", s->malformed},
                    {"refusals", s->refusals}});
  }
  locks["sessions"] = std::move(list);
  return locks.dump();
}

SessionCandidate* Server::Impl::EditableCandidate(Session& session, uint64_t request) {
  if (const std::string locked = LockedBy(candidateLock, session, "candidate"); !locked.empty()) {
    CommitError error{locked, ""};
    Respond(session, request, &error);
    return nullptr;
  }
  if (!session.candidate) {
    session.candidate = std::make_unique<SessionCandidate>(ctx.get(), store.get());
  }
  return session.candidate.get();
}

void Server::Impl::HandleCandidateEdit(Session& session, uint64_t request,
                                       const CandidateEdit& edit) {
  SessionCandidate* candidate = EditableCandidate(session, request);
  if (!candidate) return;
  CommitError error;
  if (!candidate->Edit(edit.operation(), &error)) {
    Respond(session, request, &error);
    return;
  }
  Respond(session, request, nullptr);
}

void Server::Impl::HandleGetRunning(Session& session, uint64_t request, const GetRunning& get) {
  const SessionCandidate* candidate =
      get.candidate() && session.candidate && !session.candidate->empty() ? session.candidate.get()
                                                                          : nullptr;
  if (!get.has_select() && !candidate) {
    Respond(session, request, nullptr, get.xml() ? store->RunningXml() : store->RunningJson());
    return;
  }
  TreeOwner tree;
  if (!get.has_select()) {
    // The whole candidate view: the running configuration with the touched entries replaced.
    tree.tree = store->CopyRunning();
    for (const std::string& path : candidate->Touched()) {
      lyd_node* old = nullptr;
      if (tree.tree && lyd_find_path(tree.tree, path.c_str(), 0, &old) == LY_SUCCESS) {
        lyd_free_tree(old);
      }
      bool touched = false;
      if (const lyd_node* entry = candidate->Entry(path, &touched)) CopyEntry(&tree.tree, entry);
    }
    Respond(session, request, nullptr, get.xml() ? PrintXml(tree.tree) : PrintJson(tree.tree));
    return;
  }
  std::vector<std::string> paths;
  if (CommitError error; !store->EntryPaths(get.select().entry(), &paths, &error)) {
    Respond(session, request, &error);
    return;
  }
  for (const std::string& path : paths) {
    bool touched = false;
    const lyd_node* entry = candidate ? candidate->Entry(path, &touched) : nullptr;
    if (!touched) entry = store->Find(path);
    if (entry) CopyEntry(&tree.tree, entry);
  }
  Respond(session, request, nullptr, get.xml() ? PrintXml(tree.tree) : PrintJson(tree.tree));
}

void Server::Impl::HandleSetEntries(Session& session, uint64_t request, const SetEntries& set) {
  CommitError error;
  const std::vector<std::string> deleted(set.deleted().begin(), set.deleted().end());
  // The entries: handed over in the process, or as a JSON document.
  lyd_node* tree = nullptr;
  if (set.tree() != 0) {
    {
      std::lock_guard<std::mutex> guard(handOffMutex);
      auto it = handedOff.find(set.tree());
      if (session.inProcess && it != handedOff.end()) {
        tree = it->second;
        handedOff.erase(it);
      }
    }
    if (!tree || !store->CheckEntries(tree, &error)) {
      if (!tree) error = {"no entries were handed over as " + std::to_string(set.tree()), ""};
      lyd_free_siblings(tree);
      Respond(session, request, &error);
      return;
    }
  } else if (!set.json().empty() && !store->ParseEntries(set.json(), &tree, &error)) {
    Respond(session, request, &error);
    return;
  }
  if (const std::string changed = ChangedSinceRead(session, set, tree); !changed.empty()) {
    lyd_free_siblings(tree);
    error = {
        "changed by another commit since this edit read it: " + changed + "; send the edit again",
        changed};
    Respond(session, request, &error);
    return;
  }
  if (set.candidate()) {
    SessionCandidate* candidate = EditableCandidate(session, request);
    if (!candidate) {
      lyd_free_siblings(tree);
      return;
    }
    if (!candidate->SetEntries(tree, set.tree() != 0 ? std::string() : set.json(), deleted,
                               set.validate(), &error)) {
      Respond(session, request, &error);
      return;
    }
    Respond(session, request, nullptr);
    return;
  }
  if (const std::string locked = LockedBy(runningLock, session, "running configuration");
      !locked.empty()) {
    lyd_free_siblings(tree);
    error = {locked, ""};
    Respond(session, request, &error);
    return;
  }
  std::vector<std::string> paths;
  if (!store->EntryPaths(deleted, &paths, &error)) {
    lyd_free_siblings(tree);
    Respond(session, request, &error);
    return;
  }
  auto candidate = store->PrepareEntries(tree, paths, &error);
  if (!candidate) {
    Respond(session, request, &error);
    return;
  }
  HandleCommit(session, request, std::move(candidate), {session.client, ""});
}

std::string Server::Impl::ChangedSinceRead(const Session& session, const SetEntries& set,
                                           const lyd_node* tree) const {
  if (set.read_generation() == 0 || set.read_generation() == store->generation()) return {};
  // Entries the session's candidate holds were read from it, and only the session changes it.
  const SessionCandidate* candidate = set.candidate() ? session.candidate.get() : nullptr;
  auto changed = [&](const lyd_node* entry) {
    if (candidate) {
      char* path = lyd_path(entry, LYD_PATH_STD, nullptr, 0);
      bool touched = false;
      candidate->Entry(path ? path : "", &touched);
      free(path);
      if (touched) return false;
    }
    return store->ChangedAt(entry) > set.read_generation();
  };
  for (const lyd_node* top = tree; top; top = top->next) {
    for (const lyd_node* entry = lyd_child(top); entry; entry = entry->next) {
      if (changed(entry)) return Keypath(entry);
    }
  }
  for (const std::string& keypath : set.deleted()) {
    DataPath path;
    std::string why;
    const lyd_node* entry = ParseDataPath(store->module(), keypath, &path, &why) && path.isEntry
                                ? store->Find(path.entryPath)
                                : nullptr;
    if (entry && changed(entry)) return keypath;  // one gone since is gone either way
  }
  return {};
}

void Server::Impl::HandleCandidate(Session& session, uint64_t request,
                                   const CandidateRequest& req) {
  CommitError error;
  SessionCandidate* candidate = session.candidate.get();
  const bool empty = !candidate || candidate->empty();
  switch (req.kind()) {
    case CandidateRequest::SHOW:
      Respond(session, request, nullptr,
              ChangesJson(empty ? std::vector<ChangeLine>{} : candidate->Changes()));
      return;
    case CandidateRequest::DISCARD:
      if (candidate) candidate->Clear();
      Respond(session, request, nullptr);
      return;
    case CandidateRequest::UPDATE:
      if (!empty && !candidate->Update(&error)) {
        error.message =
            "the candidate does not apply to the running configuration: " + error.message;
        Respond(session, request, &error);
        return;
      }
      Respond(session, request, nullptr);
      return;
    case CandidateRequest::VALIDATE:
    case CandidateRequest::COMMIT: {
      const bool commit = req.kind() == CandidateRequest::COMMIT;
      const std::string& persistId = req.persist_id();
      if (commit && !persistId.empty() && (!confirmation || confirmation->persist != persistId)) {
        error = {"no confirmed commit with persist id " + persistId + " is pending", ""};
        Respond(session, request, &error);
        return;
      }
      const bool mine =
          confirmation && (confirmation->session == session.id || !persistId.empty() ||
                           (!req.persist().empty() && req.persist() == confirmation->persist));
      // A commit given a persist id outlives its session: only that id confirms it elsewhere.
      if (commit && confirmation && !mine && !confirmation->persist.empty()) {
        error = {"a confirmed commit of session " + std::to_string(confirmation->session) +
                     " is pending; only its persist id confirms it",
                 ""};
        Respond(session, request, &error);
        return;
      }
      if (commit && confirmation && !mine && req.has_confirm_timeout()) {
        error = {"a confirmed commit of session " + std::to_string(confirmation->session) +
                     " is pending; only it, or its persist id, may extend it",
                 ""};
        Respond(session, request, &error);
        return;
      }
      // A commit of a candidate that changes nothing records no commit.
      const auto commitNothing = [&] {
        if (commit && mine) {
          // Nothing new: a plain commit confirms, a confirmed one extends the window.
          if (req.has_confirm_timeout()) {
            ArmConfirmation(session, req, confirmation->firstId);
          } else {
            EndConfirmation();
          }
          Respond(session, request, nullptr,
                  req.has_confirm_timeout() ? R"({"extended":true})" : R"({"confirmed":true})");
          return;
        }
        // A confirmed commit of nothing still opens a window: what follows in it is undone unless
        // confirmed.
        if (commit && !confirmation && req.has_confirm_timeout()) {
          ArmConfirmation(session, req, history->NextId());
          Respond(session, request, nullptr, R"({"armed":true})");
          return;
        }
        Respond(session, request, nullptr, commit ? "{}" : "");
      };
      if (empty) {
        commitNothing();
        return;
      }
      if (const std::string locked = LockedBy(candidateLock, session, "candidate");
          !locked.empty() && commit) {
        error = {locked, ""};
        Respond(session, request, &error);
        return;
      }
      if (const std::vector<std::string> conflicts = candidate->Conflicts(); !conflicts.empty()) {
        std::string list;
        for (const std::string& c : conflicts) list += (list.empty() ? "" : ", ") + c;
        error = {"changed by another commit since the candidate touched it: " + list +
                     "; update the candidate or discard it",
                 conflicts.front()};
        Respond(session, request, &error);
        return;
      }
      // Refused by the running lock, the commit would leave the candidate as it is; past this
      // check it cannot be refused, so the candidate may give its entries away.
      if (const std::string locked = LockedBy(runningLock, session, "running configuration");
          !locked.empty() && commit) {
        error = {locked, ""};
        Respond(session, request, &error);
        return;
      }
      auto prepared = candidate->Prepare(&error, commit);
      if (!prepared) {
        Respond(session, request, &error);
        return;
      }
      if (!commit) {
        Respond(session, request, nullptr);
        return;
      }
      if (const ChangeCounts counts = store->Count(*prepared);
          counts.added + counts.changed + counts.deleted == 0) {
        candidate->Clear();
        commitNothing();
        return;
      }
      const uint64_t id =
          HandleCommit(session, request, std::move(prepared), {session.client, req.comment()});
      if (id == 0) return;  // refused: nothing is armed, the candidate stays
      candidate->Clear();
      if (req.has_confirm_timeout()) {
        ArmConfirmation(session, req, confirmation ? confirmation->firstId : id);
      } else if (mine) {
        EndConfirmation();
      }
      return;
    }
    case CandidateRequest::CONFIRM:
    case CandidateRequest::ABORT: {
      const bool mine =
          confirmation && (confirmation->session == session.id ||
                           (!req.persist().empty() && req.persist() == confirmation->persist));
      if (!mine) break;
      if (req.kind() == CandidateRequest::CONFIRM) {
        EndConfirmation();
        Respond(session, request, nullptr);
      } else {
        UndoConfirmed(session, request, "aborted");
      }
      return;
    }
    default:
      break;
  }
  error = {"no confirmed commit of this session is pending", ""};
  Respond(session, request, &error);
}

void Server::Impl::ArmConfirmation(Session& session, const CandidateRequest& req,
                                   uint64_t firstId) {
  if (!confirmation) {
    confirmation = Confirmation{session.id, req.persist(), firstId, nullptr};
    const std::string tmp = ConfirmPath() + ".tmp";
    std::ofstream(tmp) << firstId << "\n";
    std::rename(tmp.c_str(), ConfirmPath().c_str());
  } else {
    confirmation->session = session.id;
    if (!req.persist().empty()) confirmation->persist = req.persist();
  }
  confirmation->timer = sd_event_source_unref(confirmation->timer);
  sd_event_add_time_relative(event, &confirmation->timer, CLOCK_MONOTONIC,
                             uint64_t{req.confirm_timeout()} * 1000000u, 0, OnConfirmTimeout, this);
  vqmw::Logger().info("commit {} awaits confirmation within {} s", firstId, req.confirm_timeout());
}

void Server::Impl::EndConfirmation() {
  if (!confirmation) return;
  sd_event_source_unref(confirmation->timer);
  vqmw::Logger().info("commit {} confirmed", confirmation->firstId);
  confirmation.reset();
  ::unlink(ConfirmPath().c_str());
}

int Server::Impl::OnConfirmTimeout(sd_event_source*, uint64_t, void* userdata) {
  auto* impl = static_cast<Impl*>(userdata);
  const bool restarted = impl->confirmation->session == impl->system.id;
  impl->UndoConfirmed(
      impl->system, 0,
      restarted ? "the server restarted in its confirmation window" : "not confirmed in time");
  return 0;
}

void Server::Impl::UndoConfirmed(Session& session, uint64_t request, const std::string& why) {
  const uint64_t firstId = confirmation->firstId;
  sd_event_source_unref(confirmation->timer);
  confirmation.reset();
  ::unlink(ConfirmPath().c_str());
  CommitError error;
  lyd_node* tree = nullptr;
  std::vector<std::string> deleted;
  std::unique_ptr<Candidate> candidate;
  if (StateBefore(firstId, &tree, &deleted, &error.message)) {
    candidate = store->PrepareEntries(tree, deleted, &error);
  }
  if (!candidate) {
    vqmw::Logger().error("cannot undo confirmed commit {}: {}", firstId, error.message);
    Respond(session, request, &error);
    return;
  }
  vqmw::Logger().info("undoing confirmed commit {}: {}", firstId, why);
  // Locks do not hold the undoing back: the holder's commit was the one to be confirmed.
  const uint64_t locked = std::exchange(runningLock, 0);
  HandleCommit(session, request, std::move(candidate),
               {session.client, "undo of commit " + std::to_string(firstId) + ": " + why});
  if (sessions.count(locked)) runningLock = locked;
}

void Server::Impl::HandleLock(Session& session, uint64_t request, const LockRequest& lock) {
  uint64_t& holder = lock.target() == LockRequest::CANDIDATE ? candidateLock : runningLock;
  const char* what =
      lock.target() == LockRequest::CANDIDATE ? "candidate" : "running configuration";
  CommitError error;
  if (lock.unlock()) {
    if (holder != session.id) {
      error = {std::string("this session does not hold the lock of the ") + what, ""};
      Respond(session, request, &error);
      return;
    }
    holder = 0;
    Respond(session, request, nullptr);
    return;
  }
  if (const std::string locked = LockedBy(holder, session, what); !locked.empty()) {
    ServerMessage message;
    Response* response = message.mutable_response();
    response->set_id(request);
    response->mutable_error()->set_message(locked);
    ++session.refusals;
    if (auto it = sessions.find(holder); it != sessions.end()) {
      response->mutable_error()->set_lock_holder_netconf_session(it->second->netconfId);
    }
    Send(session, message);
    return;
  }
  // As with NETCONF, the candidate cannot be locked while another session holds changes.
  if (lock.target() == LockRequest::CANDIDATE) {
    for (const auto& [id, other] : sessions) {
      if (id != session.id && other->candidate && !other->candidate->empty()) {
        error = {
            "session " + std::to_string(id) + " (user " + other->user + ") has uncommitted changes",
            ""};
        Respond(session, request, &error);
        return;
      }
    }
  }
  holder = session.id;
  (lock.target() == LockRequest::CANDIDATE ? candidateLockSince : runningLockSince) =
      ::time(nullptr);
  vqmw::Logger().info("session {} (user {}) locked the {}", session.id, session.user, what);
  Respond(session, request, nullptr, nlohmann::json{{"session", session.id}}.dump());
}

void Server::Impl::HandleGetCommits(Session& session, uint64_t request, const GetCommits& get) {
  if (!get.has_id()) {
    nlohmann::json list = nlohmann::json::array();
    for (const CommitHistory::Summary& s : history->summaries()) {
      list.push_back({{"id", s.id},
                      {"time", IsoTime(s.time)},
                      {"user", s.user},
                      {"client", s.client},
                      {"comment", s.comment}});
    }
    Respond(session, request, nullptr, list.dump(2) + "\n");
    return;
  }
  const std::optional<CommitRecord> record = history->Read(get.id());
  if (!record) {
    CommitError error{"no commit " + std::to_string(get.id()) + " in the history", ""};
    Respond(session, request, &error);
    return;
  }
  TreeOwner before, after;
  const uint32_t parse = LYD_PARSE_ONLY | LYD_PARSE_STRICT | LYD_PARSE_NO_STATE;
  lyd_parse_data_mem(ctx.get(), record->before_json().c_str(), LYD_JSON, parse, 0, &before.tree);
  lyd_parse_data_mem(ctx.get(), record->after().json().c_str(), LYD_JSON, parse, 0, &after.tree);
  std::vector<ChangeLine> lines = TreeChanges(before.tree, after.tree);
  Respond(session, request, nullptr, ChangesJson(lines));
}

bool Server::Impl::StateBefore(uint64_t first, lyd_node** tree, std::vector<std::string>* deleted,
                               std::string* error) const {
  const auto& kept = history->summaries();
  if (first > history->NextId() ||
      (first < history->NextId() && (kept.empty() || first < kept.front().id))) {
    *error = "commit " + std::to_string(first - 1) + " is not in the history" +
             (kept.empty() ? ""
                           : " (kept: " + std::to_string(kept.front().id) + " to " +
                                 std::to_string(kept.back().id) + ")");
    return false;
  }
  // Newest first, so that an entry ends as the oldest later commit found it.
  std::map<std::string, lyd_node*> target;
  std::vector<TreeOwner> trees(kept.size());
  size_t used = 0;
  for (auto it = kept.rbegin(); it != kept.rend() && it->id >= first; ++it) {
    const std::optional<CommitRecord> record = history->Read(it->id);
    if (!record) {
      *error = "cannot read commit " + std::to_string(it->id) + " from the history";
      return false;
    }
    lyd_node*& before = trees[used++].tree;
    if (lyd_parse_data_mem(ctx.get(), record->before_json().c_str(), LYD_JSON,
                           LYD_PARSE_STRICT | LYD_PARSE_NO_STATE, LYD_VALIDATE_NO_STATE,
                           &before) != LY_SUCCESS) {
      *error = "cannot read commit " + std::to_string(it->id) + " from the history";
      return false;
    }
    for (const std::string& path : record->created()) target[path] = nullptr;
    for (lyd_node* top = before; top; top = top->next) {
      for (lyd_node* entry = lyd_child(top); entry; entry = entry->next) {
        if (entry->schema->nodetype == LYS_LIST) target[Path(entry)] = entry;
      }
    }
  }
  for (const auto& [path, entry] : target) {
    if (entry) {
      CopyEntry(tree, entry);
    } else {
      deleted->push_back(path);
    }
  }
  return true;
}

void Server::Impl::HandleRollback(Session& session, uint64_t request, const Rollback& rollback) {
  CommitError error;
  lyd_node* tree = nullptr;
  std::vector<std::string> deleted;
  if (rollback.id() == 0 || rollback.id() >= history->NextId() ||
      !StateBefore(rollback.id() + 1, &tree, &deleted, &error.message)) {
    if (error.message.empty()) error.message = "no commit " + std::to_string(rollback.id());
    Respond(session, request, &error);
    return;
  }
  auto candidate = store->PrepareEntries(tree, deleted, &error);
  if (!candidate) {
    Respond(session, request, &error);
    return;
  }
  if (rollback.dry_run()) {
    std::vector<ChangeLine> lines;
    store->ForEachChange(*candidate, [&](const lyd_node* old, const lyd_node* entry) {
      EntryChanges(old, entry, &lines);
    });
    Respond(session, request, nullptr, ChangesJson(lines));
    return;
  }
  HandleCommit(session, request, std::move(candidate),
               {session.client, "rollback to " + std::to_string(rollback.id())});
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
  RespondTo(it->second.session, it->second.request, nullptr, it->second.data);
  sd_event_source_unref(it->second.timer);
  commits.erase(it);
  CompactWhenIdle();
}

void Server::Impl::CompactWhenIdle() {
  if (compaction || !commits.empty() || !persisted->CompactionDue()) return;
  // Rewriting the whole configuration waits until no commit waits for its subscribers, who
  // would otherwise wait for the rest of its changes, and goes after any pending input.
  if (sd_event_add_defer(event, &compaction, OnCompact, this) >= 0) {
    sd_event_source_set_priority(compaction, SD_EVENT_PRIORITY_IDLE);
  }
}

void Server::Impl::HandleGetOperational(Session& session, uint64_t request,
                                        const GetOperational& get) {
  const ResolvedBinding& binding = bindings.front();
  Session* provider = nullptr;
  Session* reasons = nullptr;
  for (auto& [id, s] : sessions) {
    const auto& cps = s->callpoints;
    if (std::find(cps.begin(), cps.end(), binding.callpoint) != cps.end()) provider = s.get();
    if (std::find(cps.begin(), cps.end(), kReasonCallpoint) != cps.end()) reasons = s.get();
  }
  if (!provider) {
    CommitError error{"no daemon serves " + binding.callpoint, ""};
    Respond(session, request, &error);
    return;
  }
  PendingView view{session.id, request, provider->id, {}, nullptr, get.xml(), 0, {}, {}, {}};
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
  view.entries.assign(view.keys.size(), OperationalView::kNone);
  view.reasons.resize(view.keys.size());
  const uint64_t viewId = nextObjectsRequest;
  auto request_objects = [&](Session& to, const std::string& callpoint, bool forReasons) {
    for (size_t first = 0; first < view.keys.size(); first += kObjectsPerRequest) {
      const uint64_t requestId = nextObjectsRequest++;
      ServerMessage message;
      GetObjects* objects = message.mutable_get_objects();
      objects->set_request(requestId);
      objects->set_callpoint(callpoint);
      for (const KeypathElement& e : binding.listKeypath) *objects->add_list_keypath() = e;
      const size_t last = std::min(view.keys.size(), first + kObjectsPerRequest);
      for (size_t i = first; i < last; ++i) *objects->add_key() = view.keys[i];
      objectsRequests[requestId] = {viewId, static_cast<int>(first), forReasons};
      ++view.outstanding;
      Send(to, message);
    }
  };
  if (reasons) {
    view.reasonsProvider = reasons->id;
    request_objects(*reasons, kReasonCallpoint, true);
  }
  request_objects(*provider, binding.callpoint, false);
  if (view.outstanding == 0) ++nextObjectsRequest;
  views.emplace(viewId, std::move(view));
  FinishViewIfDone(viewId);
}

void Server::Impl::HandleDataReply(Session& session, const DataReply& reply) {
  auto it = objectsRequests.find(reply.request());
  if (it == objectsRequests.end()) return;
  const ObjectsRequest objects = it->second;
  objectsRequests.erase(it);
  PendingView& view = views.at(objects.view);
  const uint64_t viewId = objects.view;
  const int first = objects.first;
  if (objects.reasons) {
    if (view.reasonsProvider != session.id) return;
    // A reason is one value; an entry without one (or a malformed answer) simply has none.
    for (int i = 0; i < reply.object_size(); ++i) {
      const size_t k = static_cast<size_t>(first + i);
      if (k < view.reasons.size() && reply.object(i).value_size() > 0)
        view.reasons[k] = reply.object(i).value(0).value().text();
    }
    --view.outstanding;
    FinishViewIfDone(viewId);
    return;
  }
  if (view.provider != session.id) return;
  for (int i = 0; i < reply.object_size(); ++i) {
    const size_t k = static_cast<size_t>(first + i);
    if (k >= view.keys.size()) break;
    const ObjectReply& object = reply.object(i);
    std::string why = object.error();
    if (object.replied() && view.view->Add(view.keys[k], object, &why)) {
      view.entries[k] = view.view->LastAdded();
      continue;
    }
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
  for (size_t k = 0; k < view.entries.size(); ++k) {
    if (view.entries[k] != OperationalView::kNone && !view.reasons[k].empty())
      view.view->AddRuleLeaf(view.entries[k], "hw-reason", view.reasons[k]);
  }
  std::string text = view.xml ? view.view->Xml() : view.view->Json();
  if (view.errors.empty()) {
    RespondTo(view.session, view.request, nullptr, std::move(text));
  } else {
    // The entries that could be shown are, with the reasons for those that could not.
    CommitError error{"entries left out: " + view.errors, ""};
    RespondTo(view.session, view.request, &error, std::move(text));
  }
  views.erase(it);
}

Server::Server(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

Server::~Server() = default;

void Server::AdoptSession(int fd, std::string user, std::string client, uint32_t netconfSession) {
  {
    std::lock_guard<std::mutex> guard(impl_->adoptMutex);
    impl_->adoptions.push_back({fd, std::move(user), std::move(client), netconfSession});
  }
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t n = ::write(impl_->adoptFd, &one, sizeof one);
}

ly_ctx* Server::Context() const {
  return impl_->ctx.get();
}

uint64_t Server::HandOff(lyd_node* tree) {
  std::lock_guard<std::mutex> guard(impl_->handOffMutex);
  const uint64_t token = ++impl_->lastHandOff;
  impl_->handedOff.emplace(token, tree);
  return token;
}

void Server::Reclaim(uint64_t token) {
  lyd_node* tree = nullptr;
  {
    std::lock_guard<std::mutex> guard(impl_->handOffMutex);
    auto it = impl_->handedOff.find(token);
    if (it == impl_->handedOff.end()) return;
    tree = it->second;
    impl_->handedOff.erase(it);
  }
  lyd_free_siblings(tree);
}

void Server::SetCommitObserver(CommitObserver* observer) {
  impl_->observer = observer;
}

std::unique_ptr<Server> Server::Create(sd_event* event, const ServerOptions& options,
                                       std::string* error) {
  auto impl = std::make_unique<Impl>();
  impl->event = event;
  impl->options = options;
  if (!impl->Init(error)) return nullptr;
  return std::unique_ptr<Server>(new Server(std::move(impl)));
}

}  // namespace pbr::mgmt
