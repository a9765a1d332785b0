#include "element/mgmt/netconf_server.h"

#include <libnetconf2/log.h>
#include <libnetconf2/messages_server.h>
#include <libnetconf2/netconf.h>
#include <libnetconf2/session_server.h>
#include <libssh/libssh.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <list>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>

#include "element/mgmt/data_path.h"
#include "element/mgmt/json_text.h"
#include "element/mgmt/netconf_bridge.h"
#include "element/mgmt/netconf_edit.h"
#include "element/mgmt/netconf_entries.h"
#include "element/mgmt/netconf_monitoring.h"
#include "element/mgmt/netconf_notifications.h"
#include "element/mgmt/server.h"
#include "element/middleware/log.h"
#include "element/yang/module.h"

namespace pbr::mgmt {

// The IETF modules the protocol needs, compiled in (generated from element/yang/ietf).
struct EmbeddedModule {
  const char* name;
  const char* text;
};
extern const EmbeddedModule kIetfModules[];

namespace {

constexpr const char* kNetconfFeatures[] = {"writable-running",
                                            "candidate",
                                            "confirmed-commit",
                                            "rollback-on-error",
                                            "validate",
                                            "xpath",
                                            nullptr};

struct TreeOwner {
  lyd_node* tree = nullptr;
  ~TreeOwner() { lyd_free_siblings(tree); }
};

// Merges `source` and its siblings (taken) into the siblings `*first`, children of `parent` or
// top-level, as lyd_merge_siblings does with LYD_MERGE_DESTRUCT: a node the tree lacks is moved
// over whole, a leaf it has takes the source's value, and containers and entries both have
// merge their children. libyang's merge took 3.6 s to bring a view of 65,536 entries into the
// configuration, moving them takes 25 ms.
void MergeMoving(lyd_node* parent, lyd_node** first, lyd_node* source) {
  for (lyd_node* next; source; source = next) {
    next = source->next;
    lyd_node* match = nullptr;
    if (*first && source->schema) lyd_find_sibling_first(*first, source, &match);
    if (!match) {
      lyd_unlink_tree(source);
      if (parent) {
        lyd_insert_child(parent, source);
      } else {
        lyd_insert_sibling(*first, source, first);
      }
      continue;
    }
    if (match->schema->nodetype & LYD_NODE_INNER) {
      lyd_node* children = lyd_child(match);
      MergeMoving(match, &children, lyd_child(source));
    } else if (match->schema->nodetype == LYS_LEAF) {
      lyd_change_term(match, lyd_get_value(source));
    }
    if (!parent) lyd_free_tree(source);  // with what of it was not moved
  }
}

const lyd_node* Child(const lyd_node* parent, const char* name) {
  for (const lyd_node* c = lyd_child(parent); c; c = c->next) {
    if (std::strcmp(LYD_NAME(c), name) == 0) return c;
  }
  return nullptr;
}

// The rpc is the session's own while it is answered: content may be taken out of it.
lyd_node* MutableChild(lyd_node* parent, const char* name) {
  return const_cast<lyd_node*>(Child(parent, name));
}

// The datastore a <source> or <target> container names: "running", "candidate", "config"...
std::string DatastoreOf(const lyd_node* rpc, const char* container) {
  const lyd_node* c = Child(rpc, container);
  const lyd_node* which = c ? lyd_child(c) : nullptr;
  return which ? LYD_NAME(which) : "";
}

nc_server_reply* RpcError(const ly_ctx* ctx, NC_ERR tag, const std::string& message,
                          const std::string& path = {}, uint32_t lockHolder = 0) {
  lyd_node* err = nullptr;
  switch (tag) {
    case NC_ERR_LOCK_DENIED:
      err = nc_err(ctx, tag, lockHolder);
      break;
    case NC_ERR_DATA_EXISTS:
    case NC_ERR_DATA_MISSING:
    case NC_ERR_MALFORMED_MSG:
      err = nc_err(ctx, tag);
      break;
    default:
      err = nc_err(ctx, tag, NC_ERR_TYPE_APP);
      break;
  }
  nc_err_set_msg(err, message.c_str(), "en");
  if (!path.empty()) nc_err_set_path(err, path.c_str());
  return nc_server_reply_err(err);
}

// The rpc's output with `tree` (taken over) as its anyxml <data>.
nc_server_reply* OutputData(const lyd_node* rpc, lyd_node* tree, NC_WD_MODE wd) {
  lyd_node* output = nullptr;
  lyd_dup_single(rpc, nullptr, 0, &output);
  lyd_new_any(output, nullptr, "data", tree, 1, LYD_ANYDATA_DATATREE, 1, nullptr);
  return nc_server_reply_data(output, wd, NC_PARAMTYPE_FREE);
}

NC_WD_MODE WithDefaults(const lyd_node* rpc) {
  const lyd_node* wd = Child(rpc, "with-defaults");
  const std::string mode = wd ? lyd_get_value(wd) : "";
  if (mode == "report-all") return NC_WD_ALL;
  if (mode == "report-all-tagged") return NC_WD_ALL_TAG;
  if (mode == "trim") return NC_WD_TRIM;
  return NC_WD_EXPLICIT;
}

// Keeps of `*tree` only what the <filter> selects (subtree or XPath); no filter keeps all.
bool ApplyFilter(ly_ctx* ctx, const lyd_node* filter, lyd_node** tree, std::string* error) {
  if (!filter) return true;
  std::string xpath;
  const lyd_meta* type = lyd_find_meta(filter->meta, nullptr, "ietf-netconf:type");
  if (type && std::strcmp(lyd_get_meta_value(type), "xpath") == 0) {
    const lyd_meta* select = lyd_find_meta(filter->meta, nullptr, "ietf-netconf:select");
    if (!select) {
      *error = "an XPath filter needs a select attribute";
      return false;
    }
    xpath = lyd_get_meta_value(select);
  } else if (!SubtreeToXPath(ctx, filter, &xpath, error)) {
    return false;
  }
  if (xpath.empty()) {  // an empty subtree filter selects nothing
    lyd_free_siblings(*tree);
    *tree = nullptr;
    return true;
  }
  if (!*tree) return true;
  ly_set* set = nullptr;
  if (lyd_find_xpath(*tree, xpath.c_str(), &set) != LY_SUCCESS) {
    const char* msg = ly_errmsg(ctx);
    *error = std::string("invalid filter: ") + (msg ? msg : xpath);
    return false;
  }
  lyd_node* kept = nullptr;
  for (uint32_t i = 0; i < set->count; ++i) {
    lyd_node* copy = nullptr;
    if (lyd_dup_single(set->dnodes[i], nullptr, LYD_DUP_RECURSIVE | LYD_DUP_WITH_PARENTS, &copy) !=
        LY_SUCCESS) {
      continue;
    }
    while (lyd_parent(copy)) copy = lyd_parent(copy);
    lyd_merge_siblings(&kept, copy, LYD_MERGE_DESTRUCT);
  }
  ly_set_free(set, nullptr);
  lyd_free_siblings(*tree);
  *tree = kept;
  return true;
}

}  // namespace

struct NetconfServer::Impl {
  struct SessionState {
    Impl* impl;
    uint32_t id;
    std::string user;
    std::unique_ptr<NetconfBridge> bridge;
    std::atomic<uint32_t> killedBy{0};  // set by kill-session of that session
  };
  struct Worker {
    std::thread thread;
    std::atomic<bool> done{false};
  };

  Server* server;
  NetconfOptions options;
  ly_ctx* ctx = nullptr;
  const lys_module* module = nullptr;
  bool initialised = false;
  std::atomic<bool> stopping{false};
  std::thread acceptor;
  std::mutex mutex;  // guards workers and sessions
  std::list<Worker> workers;
  std::map<uint32_t, SessionState*> sessions;
  NetconfNotifications notifications;
  NetconfMonitoring monitoring;

  ~Impl() {
    if (initialised) server->SetCommitObserver(nullptr);
    stopping = true;
    if (acceptor.joinable()) acceptor.join();
    for (Worker& w : workers) w.thread.join();
    if (initialised) nc_server_destroy();
    // As mgmt.sock: a socket file left behind would refuse clients until the next server binds.
    if (initialised && !options.unixPath.empty()) ::unlink(options.unixPath.c_str());
  }

  bool Init(std::string* error);
  bool LoadContext(std::string* error);
  bool SetUpSsh(std::string* error);
  void AcceptLoop();
  void RunSession(nc_session* session, Worker* worker);
  static nc_server_reply* OnRpc(lyd_node* rpc, nc_session* session);
  nc_server_reply* Dispatch(SessionState& state, lyd_node* rpc);

  // Calls the management server; on failure *reply is the rpc-error to send.
  bool Call(SessionState& state, ClientMessage request, Response* response, nc_server_reply** reply,
            NC_ERR refusalTag = NC_ERR_OP_FAILED);
  nc_server_reply* Refusal(const Error& error, NC_ERR tag);
  // The configuration of "running" or "candidate" (this session's view of it) as a tree; with
  // `entries`, only the list entries they name (keypaths).
  bool Config(SessionState& state, const std::string& which, lyd_node** tree,
              nc_server_reply** reply, const std::vector<std::string>* entries = nullptr,
              uint64_t* generation = nullptr);
  // Makes `target` hold `*next`, given that it holds `current` now (whole configurations or the
  // same list entries of both; `*next` may be taken), read at `readGeneration`; `validate`: a
  // candidate's entries are validated now.
  nc_server_reply* Store(SessionState& state, const std::string& target, const lyd_node* current,
                         lyd_node** next, uint64_t readGeneration, bool validate = true);

  nc_server_reply* GetConfig(SessionState& state, lyd_node* rpc, bool withState);
  // get or get-config of everything, without a filter or defaults to add.
  nc_server_reply* WholeView(SessionState& state, lyd_node* rpc, const std::string& source,
                             bool withState);
  nc_server_reply* EditConfig(SessionState& state, lyd_node* rpc);
  nc_server_reply* CopyConfig(SessionState& state, lyd_node* rpc);
  nc_server_reply* Lock(SessionState& state, lyd_node* rpc, bool unlock);
  nc_server_reply* Commit(SessionState& state, lyd_node* rpc);
  nc_server_reply* CandidateCall(SessionState& state, CandidateRequest::Kind kind,
                                 const std::string& persist = {});
  nc_server_reply* Validate(SessionState& state, lyd_node* rpc);
  nc_server_reply* KillSession(SessionState& state, lyd_node* rpc);
  nc_server_reply* GetSchema(lyd_node* rpc);
};

namespace {
NetconfServer::Impl* g_impl = nullptr;  // libnetconf2's callbacks carry no user data
}

bool NetconfServer::LoadModules(ly_ctx* ctx, std::string* error) {
  for (const EmbeddedModule* m = kIetfModules; m->name; ++m) {
    const bool base = std::strcmp(m->name, "ietf-netconf") == 0;
    const char* all[] = {"*", nullptr};
    ly_in* in = nullptr;
    ly_in_new_memory(m->text, &in);
    const LY_ERR r = lys_parse(ctx, in, LYS_IN_YANG,
                               base ? const_cast<const char**>(kNetconfFeatures) : all, nullptr);
    ly_in_free(in, 0);
    if (r != LY_SUCCESS) {
      const char* msg = ly_errmsg(ctx);
      *error = std::string("cannot load ") + m->name + ": " + (msg ? msg : "");
      return false;
    }
  }
  return true;
}

bool NetconfServer::Impl::LoadContext(std::string* error) {
  // The server's own context: edits parsed with an rpc become the server's entries as they are.
  ctx = server->Context();
  if (!ly_ctx_get_module_implemented(ctx, "ietf-netconf")) {
    *error = "the server's context lacks the NETCONF modules";
    return false;
  }
  module = pbr::yang::Module(ctx);
  return true;
}

bool NetconfServer::Impl::Init(std::string* error) {
  if (!LoadContext(error)) return false;
  if (nc_server_init(ctx) != 0) {
    *error = "cannot start the NETCONF server library";
    return false;
  }
  initialised = true;
  server->SetCommitObserver(&notifications);
  g_impl = this;
  nc_verbosity(NC_VERB_WARNING);
  nc_set_print_clb_session([](const nc_session* session, NC_VERB_LEVEL level, const char* msg) {
    const uint32_t id = session ? nc_session_get_id(session) : 0;
    if (level == NC_VERB_ERROR) {
      vqmw::Logger().warn("netconf: session {}: {}", id, msg);
    } else {
      vqmw::Logger().info("netconf: session {}: {}", id, msg);
    }
  });
  nc_set_global_rpc_clb(OnRpc);
  // The library answers get-schema itself unless the operation has a callback of its own, and
  // its answer is unusable with this libyang.
  if (const lysc_node* getSchema =
          lys_find_path(ctx, nullptr, "/ietf-netconf-monitoring:get-schema", 0)) {
    const_cast<lysc_node*>(getSchema)->priv = reinterpret_cast<void*>(OnRpc);
  }
  nc_server_set_hello_timeout(options.helloTimeout);
  nc_server_set_idle_timeout(options.idleTimeout);
  nc_server_set_capab_withdefaults(NC_WD_EXPLICIT,
                                   NC_WD_ALL | NC_WD_ALL_TAG | NC_WD_TRIM | NC_WD_EXPLICIT);
  // Notifications go out between RPCs of the same session (NetconfNotifications).
  nc_server_set_capability("urn:ietf:params:netconf:capability:notification:1.0");
  nc_server_set_capability("urn:ietf:params:netconf:capability:interleave:1.0");
  if (!options.unixPath.empty()) {
    ::unlink(options.unixPath.c_str());  // left by a server that ended
    // The mode must be set before the address: the socket is bound when the address is.
    if (nc_server_add_endpt("unix", NC_TI_UNIX) != 0 ||
        nc_server_endpt_set_perms("unix", 0660, static_cast<uid_t>(-1), static_cast<gid_t>(-1)) !=
            0 ||
        nc_server_endpt_set_address("unix", options.unixPath.c_str()) != 0) {
      *error = "cannot listen on " + options.unixPath;
      return false;
    }
  }
  if (options.sshPort != 0 && !SetUpSsh(error)) return false;
  acceptor = std::thread([this] { AcceptLoop(); });
  return true;
}

bool NetconfServer::Impl::SetUpSsh(std::string* error) {
  if (::access(options.hostKeyPath.c_str(), R_OK) != 0) {
    ssh_key key = nullptr;
    if (ssh_pki_generate(SSH_KEYTYPE_ED25519, 0, &key) != SSH_OK) {
      *error = "cannot generate an SSH host key";
      return false;
    }
    const mode_t old = ::umask(077);
    const int r =
        ssh_pki_export_privkey_file(key, nullptr, nullptr, nullptr, options.hostKeyPath.c_str());
    ::umask(old);
    ssh_key_free(key);
    if (r != SSH_OK) {
      *error = "cannot write the SSH host key " + options.hostKeyPath;
      return false;
    }
    ::chmod(options.hostKeyPath.c_str(), 0600);
  }
  nc_server_ssh_set_hostkey_clb(
      [](const char*, void* data, char** path, char**, NC_SSH_KEY_TYPE*) {
        *path = strdup(static_cast<Impl*>(data)->options.hostKeyPath.c_str());
        return 0;
      },
      this, nullptr);
  if (nc_server_add_endpt("ssh", NC_TI_LIBSSH) != 0 ||
      nc_server_endpt_set_address("ssh", options.sshAddress.c_str()) != 0 ||
      nc_server_endpt_set_port("ssh", options.sshPort) != 0 ||
      nc_server_ssh_endpt_add_hostkey("ssh", "hostkey", -1) != 0 ||
      nc_server_ssh_endpt_set_auth_methods("ssh", NC_SSH_AUTH_PUBLICKEY) != 0) {
    *error = "cannot listen for SSH on " + options.sshAddress + " port " +
             std::to_string(options.sshPort);
    return false;
  }
  // Every key of the authorized-keys file admits the one user. The file is read at each login
  // (the library's own key list knows no ed25519).
  nc_server_ssh_set_pubkey_auth_clb(
      [](const nc_session* session, ssh_key key, void* data) {
        const auto* impl = static_cast<const Impl*>(data);
        const char* user = nc_session_get_username(session);
        if (!user || impl->options.sshUser != user) return 1;
        std::ifstream keys(impl->options.authorizedKeysPath);
        std::string line;
        while (std::getline(keys, line)) {
          std::istringstream fields(line);
          std::string type, base64;
          if (!(fields >> type >> base64) || type[0] == '#') continue;
          ssh_key known = nullptr;
          if (ssh_pki_import_pubkey_base64(base64.c_str(), ssh_key_type_from_name(type.c_str()),
                                           &known) != SSH_OK) {
            continue;
          }
          const bool same = ssh_key_cmp(known, key, SSH_KEY_CMP_PUBLIC) == 0;
          ssh_key_free(known);
          if (same) return 0;
        }
        return 1;
      },
      this, nullptr);
  return true;
}

void NetconfServer::Impl::AcceptLoop() {
  while (!stopping) {
    nc_session* session = nullptr;
    const NC_MSG_TYPE r = nc_accept(200, &session);
    {
      std::lock_guard<std::mutex> guard(mutex);
      for (auto it = workers.begin(); it != workers.end();) {
        if (it->done) {
          it->thread.join();
          it = workers.erase(it);
        } else {
          ++it;
        }
      }
      if (r == NC_MSG_HELLO && session) {
        Worker& worker = workers.emplace_back();
        worker.thread = std::thread([this, session, &worker] { RunSession(session, &worker); });
      }
    }
  }
}

namespace {

// What subscribers hear of `session` starting or ending; the reason an ended session gives.
SessionNotice SessionEvent(const nc_session* session, bool ended) {
  SessionNotice notice;
  notice.ended = ended;
  notice.id = nc_session_get_id(session);
  const char* user = nc_session_get_username(session);
  const char* host = nc_session_get_host(session);
  notice.user = user ? user : "?";
  // Only an address fits source-host; a UNIX peer has none.
  if (host && nc_session_get_ti(session) != NC_TI_UNIX) notice.host = host;
  clock_gettime(CLOCK_REALTIME, &notice.time);
  switch (nc_session_get_term_reason(session)) {
    case NC_SESSION_TERM_CLOSED:
      notice.reason = "closed";
      break;
    case NC_SESSION_TERM_KILLED:
      notice.reason = "killed";
      break;
    case NC_SESSION_TERM_DROPPED:
      notice.reason = "dropped";
      break;
    case NC_SESSION_TERM_TIMEOUT:
      notice.reason = "timeout";
      break;
    default:
      notice.reason = "other";
      break;
  }
  return notice;
}

}  // namespace

void NetconfServer::Impl::RunSession(nc_session* session, Worker* worker) {
  SessionState state{this, nc_session_get_id(session),
                     nc_session_get_username(session) ? nc_session_get_username(session) : "?",
                     nullptr};
  state.bridge = std::make_unique<NetconfBridge>(server, state.user, &stopping, state.id);
  monitoring.Started(session);
  notifications.SessionChanged(SessionEvent(session, false));
  nc_session_set_data(session, &state);
  {
    std::lock_guard<std::mutex> guard(mutex);
    sessions[state.id] = &state;
  }
  vqmw::Logger().info("netconf: session {} of {} started", state.id, state.user);
  nc_pollsession* ps = nc_ps_new();
  nc_ps_add_session(ps, session);
  while (!stopping && !state.killedBy) {
    // A subscriber polls more often, for its notifications to go out soon after each commit.
    const int r = nc_ps_poll(ps, notifications.Subscribed(state.id) ? 20 : 200, nullptr);
    // The library answered a message it could not parse as an rpc itself.
    if (r & NC_PSPOLL_BAD_RPC) monitoring.CountBadRpc(state.id, r & NC_PSPOLL_REPLY_ERROR);
    if (r & (NC_PSPOLL_SESSION_TERM | NC_PSPOLL_SESSION_ERROR | NC_PSPOLL_NOSESSIONS |
             NC_PSPOLL_ERROR)) {
      break;
    }
    monitoring.CountNotifications(state.id, notifications.SendQueued(ctx, session));
  }
  notifications.Unsubscribe(state.id);
  monitoring.Ended(state.id);
  SessionNotice end = SessionEvent(session, true);
  if (state.killedBy) {
    end.reason = "killed";
    end.killedBy = state.killedBy;
  } else if (stopping) {
    end.reason = "other";
  }
  notifications.SessionChanged(std::move(end));
  nc_ps_free(ps);
  {
    std::lock_guard<std::mutex> guard(mutex);
    sessions.erase(state.id);
  }
  vqmw::Logger().info("netconf: session {} of {} ended", state.id, state.user);
  nc_session_free(session, nullptr);
  state.bridge.reset();
  worker->done = true;
}

nc_server_reply* NetconfServer::Impl::OnRpc(lyd_node* rpc, nc_session* session) {
  auto* state = static_cast<SessionState*>(nc_session_get_data(session));
  Impl& impl = *state->impl;
  nc_server_reply* reply = std::strcmp(LYD_NAME(rpc), "create-subscription") == 0
                               ? impl.notifications.Subscribe(impl.ctx, session, rpc)
                               : impl.Dispatch(*state, rpc);
  // Every kind of reply begins with its type (the library offers no getter).
  impl.monitoring.CountRpc(state->id,
                           reply && *reinterpret_cast<const NC_RPL*>(reply) == NC_RPL_ERROR);
  return reply;
}

nc_server_reply* NetconfServer::Impl::Dispatch(SessionState& state, lyd_node* rpc) {
  const std::string name = LYD_NAME(rpc);
  if (name == "get-config") return GetConfig(state, rpc, false);
  if (name == "get") return GetConfig(state, rpc, true);
  if (name == "edit-config") return EditConfig(state, rpc);
  if (name == "copy-config") return CopyConfig(state, rpc);
  if (name == "lock") return Lock(state, rpc, false);
  if (name == "unlock") return Lock(state, rpc, true);
  if (name == "commit") return Commit(state, rpc);
  if (name == "discard-changes") return CandidateCall(state, CandidateRequest::DISCARD);
  if (name == "cancel-commit") {
    const lyd_node* id = Child(rpc, "persist-id");
    return CandidateCall(state, CandidateRequest::ABORT, id ? lyd_get_value(id) : "");
  }
  if (name == "validate") return Validate(state, rpc);
  if (name == "close-session") return nc_server_reply_ok();
  if (name == "kill-session") return KillSession(state, rpc);
  if (name == "get-schema") return GetSchema(rpc);
  return RpcError(ctx, NC_ERR_OP_NOT_SUPPORTED, "operation " + name + " is not supported");
}

bool NetconfServer::Impl::Call(SessionState& state, ClientMessage request, Response* response,
                               nc_server_reply** reply, NC_ERR refusalTag) {
  std::string why;
  if (!state.bridge->Call(std::move(request), response, &why)) {
    *reply = RpcError(ctx, NC_ERR_OP_FAILED, why);
    return false;
  }
  if (!response->ok()) {
    *reply = Refusal(response->error(), refusalTag);
    return false;
  }
  return true;
}

nc_server_reply* NetconfServer::Impl::Refusal(const Error& error, NC_ERR tag) {
  const std::string& message = error.message();
  // Someone else's lock or changes stand in the way.
  if (message.find("is locked by") != std::string::npos ||
      message.find("has uncommitted changes") != std::string::npos ||
      message.find("since this edit read it") != std::string::npos) {
    tag = tag == NC_ERR_LOCK_DENIED ? tag : NC_ERR_IN_USE;
  }
  std::string path = error.path();
  DataPath dp;
  std::string ignored;
  if (!path.empty() && ParseDataPath(module, path, &dp, &ignored)) path = dp.path;
  return RpcError(ctx, tag, message, path, error.lock_holder_netconf_session());
}

bool NetconfServer::Impl::Config(SessionState& state, const std::string& which, lyd_node** tree,
                                 nc_server_reply** reply, const std::vector<std::string>* entries,
                                 uint64_t* generation) {
  ClientMessage get;
  get.mutable_get_running()->set_candidate(which == "candidate");
  if (entries) {
    if (entries->empty()) return true;  // nothing to read
    *get.mutable_get_running()->mutable_select()->mutable_entry() = {entries->begin(),
                                                                     entries->end()};
  }
  Response response;
  if (!Call(state, get, &response, reply)) return false;
  if (generation) *generation = response.generation();
  if (lyd_parse_data_mem(ctx, response.data().c_str(), LYD_JSON, LYD_PARSE_ONLY | LYD_PARSE_STRICT,
                         0, tree) != LY_SUCCESS) {
    *reply = RpcError(ctx, NC_ERR_OP_FAILED, "cannot read the " + which + " configuration");
    return false;
  }
  return true;
}

nc_server_reply* NetconfServer::Impl::Store(SessionState& state, const std::string& target,
                                            const lyd_node* current, lyd_node** next,
                                            uint64_t readGeneration, bool validate) {
  EntryUpdate changes = ChangedEntries(current, next, server->Context());
  if (changes.empty()) return nc_server_reply_ok();
  ClientMessage request;
  SetEntries* set = request.mutable_set_entries();
  // The new versions go to the loop as they are; whatever it does not take is freed here.
  const uint64_t token = changes.tree ? server->HandOff(changes.tree.release()) : 0;
  set->set_tree(token);
  *set->mutable_deleted() = {changes.deleted.begin(), changes.deleted.end()};
  set->set_candidate(target == "candidate");
  set->set_validate(validate);
  set->set_read_generation(readGeneration);
  Response response;
  nc_server_reply* reply = nullptr;
  const bool stored = Call(state, std::move(request), &response, &reply, NC_ERR_INVALID_VALUE);
  if (token != 0) server->Reclaim(token);
  return stored ? nc_server_reply_ok() : reply;
}

namespace {

// The top-level nodes of two XML documents that libyang printed without whitespace, as one:
// the container both start with becomes one.
std::string JoinXml(std::string first, const std::string& second) {
  if (first.empty()) return second;
  if (second.empty()) return first;
  const size_t open = second.find('>');
  const size_t nameEnd = second.find_first_of(" />");
  if (open == std::string::npos || second[open - 1] == '/') return first + second;
  const std::string close = "</" + second.substr(1, nameEnd - 1) + ">";
  if (first.compare(0, open + 1, second, 0, open + 1) != 0 || !first.ends_with(close)) {
    return first + second;
  }
  first.resize(first.size() - close.size());
  first.append(second, open + 1);
  return first;
}

}  // namespace

nc_server_reply* NetconfServer::Impl::WholeView(SessionState& state, lyd_node* rpc,
                                                const std::string& source, bool withState) {
  // The operational view is asked first: the daemon builds it while the loop prints the
  // configuration.
  std::string why;
  uint64_t viewId = 0;
  if (withState) {
    ClientMessage view;
    view.mutable_get_operational()->set_xml(true);
    if (!state.bridge->Send(std::move(view), &viewId, &why)) {
      return RpcError(ctx, NC_ERR_OP_FAILED, why);
    }
  }
  ClientMessage get;
  get.mutable_get_running()->set_candidate(source == "candidate");
  get.mutable_get_running()->set_xml(true);
  Response response;
  nc_server_reply* reply = nullptr;
  if (!Call(state, get, &response, &reply)) return reply;
  std::string xml = std::move(*response.mutable_data());
  if (withState) {
    // Without a daemon serving the view, get answers with the configuration alone.
    if (!state.bridge->Receive(viewId, &response, &why)) {
      return RpcError(ctx, NC_ERR_OP_FAILED, why);
    }
    if (response.ok()) xml = JoinXml(std::move(xml), response.data());
    // The NETCONF server's own state follows, as top-level siblings of the configuration.
    TreeOwner own;
    own.tree = monitoring.Tree(ctx, *state.bridge, &why);
    if (!own.tree) return RpcError(ctx, NC_ERR_OP_FAILED, why);
    char* text = nullptr;
    lyd_print_mem(&text, own.tree, LYD_XML, LYD_PRINT_WITHSIBLINGS | LYD_PRINT_SHRINK);
    if (text) xml += text;
    free(text);
  }
  lyd_node* output = nullptr;
  lyd_dup_single(rpc, nullptr, 0, &output);
  lyd_new_any(output, nullptr, "data", xml.c_str(), 0, LYD_ANYDATA_XML, 1, nullptr);
  return nc_server_reply_data(output, NC_WD_EXPLICIT, NC_PARAMTYPE_FREE);
}

nc_server_reply* NetconfServer::Impl::GetConfig(SessionState& state, lyd_node* rpc,
                                                bool withState) {
  const std::string source = withState ? "running" : DatastoreOf(rpc, "source");
  if (source != "running" && source != "candidate") {
    return RpcError(ctx, NC_ERR_OP_NOT_SUPPORTED, "no datastore " + source);
  }
  // Everything, as stored: the server's XML goes out as it is, without a tree in between.
  const NC_WD_MODE mode = WithDefaults(rpc);
  if (!Child(rpc, "filter") && mode != NC_WD_ALL && mode != NC_WD_ALL_TAG) {
    return WholeView(state, rpc, source, withState);
  }
  TreeOwner tree;
  nc_server_reply* reply = nullptr;
  if (!Config(state, source, &tree.tree, &reply)) return reply;
  if (withState) {
    ClientMessage get;
    get.mutable_get_operational();
    Response response;
    std::string why;
    // Without a daemon serving the view, get answers with the configuration alone.
    if (!state.bridge->Call(get, &response, &why)) return RpcError(ctx, NC_ERR_OP_FAILED, why);
    lyd_node* view = nullptr;
    if (!response.ok()) response.set_data("{}");
    if (lyd_parse_data_mem(ctx, response.data().c_str(), LYD_JSON, LYD_PARSE_ONLY, 0, &view) !=
        LY_SUCCESS) {
      return RpcError(ctx, NC_ERR_OP_FAILED, "cannot read the operational view");
    }
    MergeMoving(nullptr, &tree.tree, view);
    // The NETCONF server's own state, unless the filter leaves it out anyway.
    if (NetconfMonitoring::Wanted(Child(rpc, "filter"))) {
      lyd_node* own = monitoring.Tree(ctx, *state.bridge, &why);
      if (!own) return RpcError(ctx, NC_ERR_OP_FAILED, why);
      MergeMoving(nullptr, &tree.tree, own);
    }
  }
  const NC_WD_MODE wd = WithDefaults(rpc);
  if ((wd == NC_WD_ALL || wd == NC_WD_ALL_TAG) && tree.tree) {
    lyd_new_implicit_all(&tree.tree, ctx, withState ? 0 : LYD_IMPLICIT_NO_STATE, nullptr);
  }
  std::string why;
  if (!ApplyFilter(ctx, Child(rpc, "filter"), &tree.tree, &why)) {
    return RpcError(ctx, NC_ERR_INVALID_VALUE, why);
  }
  return OutputData(rpc, std::exchange(tree.tree, nullptr), wd);
}

nc_server_reply* NetconfServer::Impl::EditConfig(SessionState& state, lyd_node* rpc) {
  const std::string target = DatastoreOf(rpc, "target");
  lyd_node* config = MutableChild(rpc, "config");
  if (!config) return RpcError(ctx, NC_ERR_OP_NOT_SUPPORTED, "only <config> content is supported");
  const lyd_node* def = Child(rpc, "default-operation");
  const lyd_node* test = Child(rpc, "test-option");
  const std::string defaultOp = def ? lyd_get_value(def) : "merge";
  const std::string testOption = test ? lyd_get_value(test) : "test-then-set";

  TreeOwner edit;
  std::string why;
  std::string where;
  if (!ParseConfigContent(ctx, config, &edit.tree, &why, &where)) {
    return RpcError(ctx, NC_ERR_INVALID_VALUE, why, where);
  }
  // The entries the edit names are all it reads and changes, unless it covers everything.
  std::vector<std::string> entries;
  const bool whole = defaultOp == "replace" || !EditedEntries(edit.tree, &entries);
  TreeOwner current;
  nc_server_reply* reply = nullptr;
  uint64_t generation = 0;
  if (!Config(state, target, &current.tree, &reply, whole ? nullptr : &entries, &generation)) {
    return reply;
  }
  TreeOwner next;
  if (defaultOp != "replace" && current.tree) {
    lyd_dup_siblings(current.tree, nullptr, LYD_DUP_RECURSIVE, &next.tree);
  }
  EditError failure;
  if (!ApplyEdit(&edit.tree, defaultOp == "none" ? EditOp::kNone : EditOp::kMerge, &next.tree,
                 &failure)) {
    return RpcError(ctx, failure.tag, failure.message, failure.path);
  }
  // The server validates what it stores; test-only stops here.
  if (testOption == "test-only") {
    if (!ValidateConfig(ctx, &next.tree, &failure)) {
      return RpcError(ctx, failure.tag, failure.message, failure.path);
    }
    return nc_server_reply_ok();
  }
  return Store(state, target, current.tree, &next.tree, generation, testOption != "set");
}

nc_server_reply* NetconfServer::Impl::CopyConfig(SessionState& state, lyd_node* rpc) {
  const std::string target = DatastoreOf(rpc, "target");
  const std::string source = DatastoreOf(rpc, "source");
  if ((target != "running" && target != "candidate") || target == source) {
    return RpcError(ctx, NC_ERR_INVALID_VALUE, "cannot copy " + source + " to " + target);
  }
  TreeOwner current, next;
  nc_server_reply* reply = nullptr;
  uint64_t generation = 0;
  if (!Config(state, target, &current.tree, &reply, nullptr, &generation)) return reply;
  std::string why;
  if (source == "config") {
    std::string where;
    if (!ParseConfigContent(ctx, MutableChild(MutableChild(rpc, "source"), "config"), &next.tree,
                            &why, &where)) {
      return RpcError(ctx, NC_ERR_INVALID_VALUE, why, where);
    }
  } else if (!Config(state, source, &next.tree, &reply)) {
    return reply;
  }
  EditError failure;
  if (!ValidateConfig(ctx, &next.tree, &failure)) {
    return RpcError(ctx, failure.tag, failure.message, failure.path);
  }
  return Store(state, target, current.tree, &next.tree, generation);
}

nc_server_reply* NetconfServer::Impl::Lock(SessionState& state, lyd_node* rpc, bool unlock) {
  const std::string target = DatastoreOf(rpc, "target");
  if (target != "running" && target != "candidate") {
    return RpcError(ctx, NC_ERR_OP_NOT_SUPPORTED, "no datastore " + target);
  }
  ClientMessage request;
  request.mutable_lock()->set_target(target == "candidate" ? LockRequest::CANDIDATE
                                                           : LockRequest::RUNNING);
  request.mutable_lock()->set_unlock(unlock);
  Response response;
  nc_server_reply* reply = nullptr;
  if (!Call(state, std::move(request), &response, &reply,
            unlock ? NC_ERR_OP_FAILED : NC_ERR_LOCK_DENIED)) {
    return reply;
  }
  return nc_server_reply_ok();
}

nc_server_reply* NetconfServer::Impl::Commit(SessionState& state, lyd_node* rpc) {
  ClientMessage request;
  CandidateRequest* commit = request.mutable_candidate();
  commit->set_kind(CandidateRequest::COMMIT);
  if (Child(rpc, "confirmed")) {
    const lyd_node* timeout = Child(rpc, "confirm-timeout");
    commit->set_confirm_timeout(timeout ? static_cast<uint32_t>(std::stoul(lyd_get_value(timeout)))
                                        : 600u);
    if (const lyd_node* persist = Child(rpc, "persist"))
      commit->set_persist(lyd_get_value(persist));
  }
  if (const lyd_node* id = Child(rpc, "persist-id")) commit->set_persist_id(lyd_get_value(id));
  Response response;
  nc_server_reply* reply = nullptr;
  if (!Call(state, std::move(request), &response, &reply, NC_ERR_INVALID_VALUE)) return reply;
  return nc_server_reply_ok();
}

nc_server_reply* NetconfServer::Impl::CandidateCall(SessionState& state,
                                                    CandidateRequest::Kind kind,
                                                    const std::string& persist) {
  ClientMessage request;
  request.mutable_candidate()->set_kind(kind);
  request.mutable_candidate()->set_persist(persist);
  Response response;
  nc_server_reply* reply = nullptr;
  if (!Call(state, std::move(request), &response, &reply, NC_ERR_INVALID_VALUE)) return reply;
  return nc_server_reply_ok();
}

nc_server_reply* NetconfServer::Impl::Validate(SessionState& state, lyd_node* rpc) {
  const std::string source = DatastoreOf(rpc, "source");
  if (source == "candidate") return CandidateCall(state, CandidateRequest::VALIDATE);
  if (source == "running") return nc_server_reply_ok();  // every commit was validated
  TreeOwner tree;
  std::string why;
  std::string where;
  if (!ParseConfigContent(ctx, MutableChild(MutableChild(rpc, "source"), "config"), &tree.tree,
                          &why, &where)) {
    return RpcError(ctx, NC_ERR_INVALID_VALUE, why, where);
  }
  EditError failure;
  if (!ValidateConfig(ctx, &tree.tree, &failure)) {
    return RpcError(ctx, failure.tag, failure.message, failure.path);
  }
  return nc_server_reply_ok();
}

nc_server_reply* NetconfServer::Impl::KillSession(SessionState& state, lyd_node* rpc) {
  const lyd_node* idNode = Child(rpc, "session-id");
  const uint32_t id = idNode ? static_cast<uint32_t>(std::stoul(lyd_get_value(idNode))) : 0;
  if (id == state.id) return RpcError(ctx, NC_ERR_INVALID_VALUE, "a session cannot kill itself");
  // A pbr-cli session, as netconf-state lists it: the server ends it.
  if (id >= kProtocolSessionBase) {
    ClientMessage request;
    request.mutable_end_session()->set_id(id);
    Response response;
    nc_server_reply* reply = nullptr;
    if (!Call(state, std::move(request), &response, &reply, NC_ERR_INVALID_VALUE)) return reply;
    return nc_server_reply_ok();
  }
  std::lock_guard<std::mutex> guard(mutex);
  auto it = sessions.find(id);
  if (it == sessions.end()) {
    return RpcError(ctx, NC_ERR_INVALID_VALUE, "no session " + std::to_string(id));
  }
  // Its thread ends it at its next poll, which releases its locks and candidate.
  it->second->killedBy = state.id;
  return nc_server_reply_ok();
}

nc_server_reply* NetconfServer::Impl::GetSchema(lyd_node* rpc) {
  const lyd_node* id = Child(rpc, "identifier");
  const lyd_node* version = Child(rpc, "version");
  const lyd_node* format = Child(rpc, "format");
  if (format && std::strstr(lyd_get_value(format), "yang") == nullptr) {
    return RpcError(ctx, NC_ERR_INVALID_VALUE, "only the yang format is served");
  }
  const char* name = id ? lyd_get_value(id) : "";
  const lys_module* mod = version && *lyd_get_value(version)
                              ? ly_ctx_get_module(ctx, name, lyd_get_value(version))
                              : ly_ctx_get_module_latest(ctx, name);
  if (!mod) return RpcError(ctx, NC_ERR_INVALID_VALUE, std::string("no module ") + name);
  char* text = nullptr;
  if (lys_print_mem(&text, mod, LYS_OUT_YANG, 0) != LY_SUCCESS) {
    return RpcError(ctx, NC_ERR_OP_FAILED, std::string("cannot print module ") + name);
  }
  lyd_node* output = nullptr;
  lyd_dup_single(rpc, nullptr, 0, &output);
  // The module's text as XML character data.
  std::string escaped;
  AppendXmlText(text, &escaped);
  free(text);
  lyd_new_any(output, nullptr, "data", escaped.c_str(), 0, LYD_ANYDATA_XML, 1, nullptr);
  return nc_server_reply_data(output, NC_WD_EXPLICIT, NC_PARAMTYPE_FREE);
}

NetconfServer::NetconfServer(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

NetconfServer::~NetconfServer() = default;

std::unique_ptr<NetconfServer> NetconfServer::Start(Server* server, const NetconfOptions& options,
                                                    std::string* error) {
  auto impl = std::make_unique<Impl>();
  impl->server = server;
  impl->options = options;
  if (!impl->Init(error)) return nullptr;
  return std::unique_ptr<NetconfServer>(new NetconfServer(std::move(impl)));
}

}  // namespace pbr::mgmt
