#include "element/mgmt/netconf_monitoring.h"

#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>

#include "element/mgmt/netconf_bridge.h"
#include "element/mgmt/netconf_edit.h"

namespace pbr::mgmt {

namespace {

std::string Time(time_t t) {
  char* text = nullptr;
  if (ly_time_time2str(t, nullptr, &text) != LY_SUCCESS || !text) return "1970-01-01T00:00:00Z";
  std::string out = text;
  std::free(text);
  return out;
}

void Leaf(lyd_node* parent, const lys_module* mod, const char* name, const std::string& value) {
  lyd_new_term(parent, mod, name, value.c_str(), 0, nullptr);
}

lyd_node* Inner(lyd_node* parent, const lys_module* mod, const char* name) {
  lyd_node* node = nullptr;
  lyd_new_inner(parent, mod, name, 0, &node);
  return node;
}

}  // namespace

void NetconfMonitoring::Started(const nc_session* session) {
  Session s;
  s.transport = nc_session_get_ti(session) == NC_TI_UNIX ? "pbr-netconf-monitoring:unix-socket"
                                                         : "ietf-netconf-monitoring:netconf-ssh";
  const char* user = nc_session_get_username(session);
  const char* host = nc_session_get_host(session);
  s.user = user ? user : "?";
  s.host = host ? host : "";
  s.login = nc_session_get_start_time(session);
  std::lock_guard<std::mutex> guard(mutex_);
  sessions_[nc_session_get_id(session)] = std::move(s);
  ++inSessions_;
}

void NetconfMonitoring::Ended(uint32_t id) {
  std::lock_guard<std::mutex> guard(mutex_);
  sessions_.erase(id);
}

void NetconfMonitoring::CountRpc(uint32_t id, bool error) {
  std::lock_guard<std::mutex> guard(mutex_);
  for (Counters* c : {&total_, &sessions_[id].counters}) {
    ++c->inRpcs;
    c->outRpcErrors += error ? 1 : 0;
  }
}

void NetconfMonitoring::CountBadRpc(uint32_t id, bool answered) {
  std::lock_guard<std::mutex> guard(mutex_);
  for (Counters* c : {&total_, &sessions_[id].counters}) {
    ++c->inBadRpcs;
    c->outRpcErrors += answered ? 1 : 0;
  }
}

void NetconfMonitoring::CountNotifications(uint32_t id, uint32_t count) {
  if (count == 0) return;
  std::lock_guard<std::mutex> guard(mutex_);
  total_.outNotifications += count;
  if (auto it = sessions_.find(id); it != sessions_.end())
    it->second.counters.outNotifications += count;
}

bool NetconfMonitoring::Wanted(const lyd_node* filter) {
  if (!filter) return true;
  std::string text;
  char* value = nullptr;
  if (AnyXmlText(filter, &value) && value) {
    text = value;
    std::free(value);
  }
  for (const lyd_meta* m = filter->meta; m; m = m->next) {
    if (std::strcmp(m->name, "select") == 0) text += lyd_get_meta_value(m);
  }
  for (const char* what :
       {"ietf-netconf-monitoring", "netconf-state", "ietf-yang-library", "yang-library",
        "modules-state", "netmod:notification", "nc-notifications"}) {
    if (text.find(what) != std::string::npos) return true;
  }
  return false;
}

lyd_node* NetconfMonitoring::Tree(ly_ctx* ctx, NetconfBridge& bridge, std::string* error) {
  ClientMessage request;
  request.mutable_get_locks()->set_sessions(true);
  Response response;
  if (!bridge.Call(std::move(request), &response, error)) return nullptr;
  const nlohmann::json locks = nlohmann::json::parse(response.data(), nullptr, false);

  const lys_module* ncm = ly_ctx_get_module_implemented(ctx, "ietf-netconf-monitoring");
  const lys_module* own = ly_ctx_get_module_implemented(ctx, "pbr-netconf-monitoring");
  const lys_module* ncn = ly_ctx_get_module_implemented(ctx, "nc-notifications");
  lyd_node* state = Inner(nullptr, ncm, "netconf-state");

  lyd_node* caps = Inner(state, ncm, "capabilities");
  if (const char** cpblts = nc_server_get_cpblts(ctx)) {
    for (const char** c = cpblts; *c; ++c) {
      Leaf(caps, ncm, "capability", *c);
      lydict_remove(ctx, *c);
    }
    std::free(cpblts);
  }

  lyd_node* stores = Inner(state, ncm, "datastores");
  for (const char* name : {"running", "candidate"}) {
    lyd_node* store = nullptr;
    lyd_new_list(stores, ncm, "datastore", 0, &store, name);
    if (!locks.is_object() || !locks.contains(name)) continue;
    const nlohmann::json& lock = locks[name];
    lyd_node* global = Inner(Inner(store, ncm, "locks"), ncm, "global-lock");
    Leaf(global, ncm, "locked-by-session", std::to_string(lock.value("netconf_session", 0u)));
    Leaf(global, ncm, "locked-time", Time(lock.value("since", int64_t{0})));
    Leaf(global, own, "locked-by-management-session", std::to_string(lock.value("id", 0u)));
    Leaf(global, own, "locked-by-user", lock.value("user", ""));
    Leaf(global, own, "locked-by-client", lock.value("client", ""));
  }

  lyd_node* schemas = Inner(state, ncm, "schemas");
  uint32_t index = 0;
  while (const lys_module* mod = ly_ctx_get_module_iter(ctx, &index)) {
    lyd_node* schema = nullptr;
    if (lyd_new_list(schemas, ncm, "schema", 0, &schema, mod->name,
                     mod->revision ? mod->revision : "",
                     "ietf-netconf-monitoring:yang") != LY_SUCCESS) {
      continue;
    }
    Leaf(schema, ncm, "namespace", mod->ns);
    Leaf(schema, ncm, "location", "NETCONF");
  }

  auto counters = [&](lyd_node* parent, const Counters& c) {
    Leaf(parent, ncm, "in-rpcs", std::to_string(c.inRpcs));
    Leaf(parent, ncm, "in-bad-rpcs", std::to_string(c.inBadRpcs));
    Leaf(parent, ncm, "out-rpc-errors", std::to_string(c.outRpcErrors));
    Leaf(parent, ncm, "out-notifications", std::to_string(c.outNotifications));
  };
  lyd_node* list = Inner(state, ncm, "sessions");
  lyd_node* statistics = Inner(state, ncm, "statistics");
  {
    std::lock_guard<std::mutex> guard(mutex_);
    for (const auto& [id, s] : sessions_) {
      lyd_node* session = nullptr;
      if (lyd_new_list(list, ncm, "session", 0, &session, std::to_string(id).c_str()) !=
          LY_SUCCESS) {
        continue;
      }
      Leaf(session, ncm, "transport", s.transport);
      Leaf(session, ncm, "username", s.user);
      if (!s.host.empty()) Leaf(session, ncm, "source-host", s.host);
      Leaf(session, ncm, "login-time", Time(s.login));
      counters(session, s.counters);
    }
    // The management protocol's sessions, after the NETCONF ones (their ids are all higher).
    const nlohmann::json none = nlohmann::json::array();
    const nlohmann::json& others =
        locks.is_object() && locks.contains("sessions") ? locks["sessions"] : none;
    for (const nlohmann::json& s : others) {
      lyd_node* session = nullptr;
      if (!s.is_object() || lyd_new_list(list, ncm, "session", 0, &session,
                                         std::to_string(s.value("id", 0u)).c_str()) != LY_SUCCESS) {
        continue;
      }
      Leaf(session, ncm, "transport", "pbr-netconf-monitoring:cli");
      Leaf(session, ncm, "username", s.value("user", "?"));
      Leaf(session, ncm, "login-time", Time(s.value("login", int64_t{0})));
      Counters c;
      c.inRpcs = s.value("requests", 0u);
      c.inBadRpcs = s.value("malformed", 0u);
      c.outRpcErrors = s.value("refusals", 0u);
      counters(session, c);
      if (const uint32_t pid = s.value("pid", 0u))
        Leaf(session, own, "process-id", std::to_string(pid));
    }
    Leaf(statistics, ncm, "netconf-start-time", Time(start_));
    Leaf(statistics, ncm, "in-sessions", std::to_string(inSessions_));
    counters(statistics, total_);
  }

  // The one event stream.
  lyd_node* streams = Inner(Inner(nullptr, ncn, "netconf"), ncn, "streams");
  lyd_node* stream = nullptr;
  lyd_new_list(streams, ncn, "stream", 0, &stream, "NETCONF");
  Leaf(stream, ncn, "description",
       "configuration changes and NETCONF sessions (netconf-config-change, "
       "netconf-session-start, netconf-session-end)");
  Leaf(stream, ncn, "replaySupport", "false");
  lyd_node* first = state;
  lyd_insert_sibling(first, lyd_parent(streams), &first);

  lyd_node* library = nullptr;
  if (ly_ctx_get_yanglib_data(ctx, &library, "%u", ly_ctx_get_change_count(ctx)) == LY_SUCCESS) {
    lyd_insert_sibling(first, library, &first);
  }
  return first;
}

}  // namespace pbr::mgmt
