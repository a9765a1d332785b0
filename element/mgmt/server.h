// The management server: holds the running configuration, commits operator requests to it,
// delivers each commit to the daemons subscribed to the paths it touches, and routes requests
// for operational data to the daemon that serves the callpoint. One process, one thread: every
// socket is non-blocking and polled by the sd-event loop the server is given.
#pragma once

#include <libyang/libyang.h>
#include <systemd/sd-event.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "element/mgmt/commit_notice.h"

namespace pbr::mgmt {

// Sessions of the management protocol that serve no NETCONF session (pbr-cli and other tools)
// are known to NETCONF, in netconf-state and in refusals, as this plus their session number
// below it: libnetconf2 numbers its sessions from 1 up and would need 2^31 of them to get there.
constexpr uint32_t kProtocolSessionBase = 1u << 31;

struct ServerOptions {
  std::string runtimeDir;  // mgmt.sock and mgmt.lock
  std::string stateDir;    // running.json
  // Loads further modules into the server's context before anything uses it: those of a
  // northbound sharing the context (NetconfServer::LoadModules), whose trees then pass to the
  // server without copies.
  std::function<bool(ly_ctx*, std::string*)> extendContext;
  // How long a commit waits for its subscribers' acknowledgements before it is answered.
  std::chrono::milliseconds ackTimeout{10000};
  // How many commits the history keeps at least.
  size_t historySize = 100;
  // Input taken from one connection per turn of the loop, so that every session and subscriber
  // is served while a client streams a large message: bytes read, and messages handled.
  size_t readPerTurn = 1u << 20;
  int messagesPerTurn = 32;
  // Incomplete messages held across connections, beyond 64 KiB each: a connection whose input
  // takes the total over it is closed. Room for two messages of the largest size.
  size_t inputBudget = 130u << 20;
  // How long a message may stay incomplete before its connection is closed.
  std::chrono::milliseconds frameTimeout{30000};
};

class Server {
 public:
  // Loads the stored configuration and listens. Null with *error when another server holds
  // the runtime directory, the stored configuration is unreadable or invalid, or the socket
  // cannot be made. `event` must outlive the server.
  static std::unique_ptr<Server> Create(sd_event* event, const ServerOptions& options,
                                        std::string* error);
  ~Server();

  // Serves `fd` (one end of a connected stream socket) as a session of `user`, whose commits the
  // history records as made with `client`, and lock holders and commit notices name by
  // `netconfSession` (0: none). Safe to call from any thread: the session is set up on the loop,
  // and requests written to the other end before that wait in the socket.
  void AdoptSession(int fd, std::string user, std::string client, uint32_t netconfSession = 0);

  // The libyang context of the server's trees. In-process sessions make trees in it (from any
  // thread: the context never changes once the server runs).
  ly_ctx* Context() const;
  // Hands a tree of list entries below top-level containers (made in Context(), taken) to an
  // in-process session's next SetEntries, which names it by the token returned; spares printing
  // and parsing a bulk edit. Reclaim frees it unless that request took it. Any thread.
  uint64_t HandOff(lyd_node* tree);
  void Reclaim(uint64_t token);

  // Tells `observer` (null: nobody) of every commit from now on. Call on the loop's thread, or
  // before the loop runs; the observer must outlive the server or be replaced first.
  void SetCommitObserver(CommitObserver* observer);

  struct Impl;

 private:
  explicit Server(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace pbr::mgmt
