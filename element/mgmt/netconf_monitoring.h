// The NETCONF server's own state for <get>: ietf-netconf-monitoring's netconf-state (RFC 6022:
// capabilities, datastores with their locks, sessions with counters, schemas, statistics),
// nc-notifications' streams (RFC 5277) and ietf-yang-library (RFC 8525). NETCONF sessions
// register here from their own threads; the locks, and the sessions of the management protocol
// (pbr-cli's), come from the management server in one request.
#pragma once

#include <libnetconf2/session_server.h>
#include <libyang/libyang.h>

#include <cstdint>
#include <ctime>
#include <map>
#include <mutex>
#include <string>

namespace pbr::mgmt {

class NetconfBridge;

class NetconfMonitoring {
 public:
  NetconfMonitoring() : start_(::time(nullptr)) {}

  void Started(const nc_session* session);
  void Ended(uint32_t id);
  // Counts an RPC of session `id`, and whether it was answered with an error.
  void CountRpc(uint32_t id, bool error);
  // Counts a message of session `id` that was no valid rpc; `answered`: with an rpc-error.
  void CountBadRpc(uint32_t id, bool answered);
  void CountNotifications(uint32_t id, uint32_t count);

  // Whether a <get> with this filter (null: none) may select any of what Tree builds.
  static bool Wanted(const lyd_node* filter);
  // The state trees, in `ctx`; the locks and the management protocol's sessions are asked of the
  // server through `bridge`. Null with
  // *error when the server does not answer.
  lyd_node* Tree(ly_ctx* ctx, NetconfBridge& bridge, std::string* error);

 private:
  struct Counters {
    uint32_t inRpcs = 0;
    uint32_t inBadRpcs = 0;
    uint32_t outRpcErrors = 0;
    uint32_t outNotifications = 0;
  };
  struct Session {
    std::string transport;  // identity, module-qualified
    std::string user;
    std::string host;
    time_t login = 0;
    Counters counters;
  };
  std::mutex mutex_;
  std::map<uint32_t, Session> sessions_;
  Counters total_;
  uint32_t inSessions_ = 0;
  time_t start_;
};

}  // namespace pbr::mgmt
