// The NETCONF northbound of the management server (RFC 6241 over a UNIX socket and RFC 6242
// over SSH), on libnetconf2. The library exposes no descriptors and blocks on slow peers, so it
// runs on threads of its own: one accepting, one per session. Every datastore request crosses to
// the server's loop through a NetconfBridge, so a stalled peer holds up only its own thread.
#pragma once

#include <libyang/libyang.h>
#include <cstdint>

#include <memory>
#include <string>

namespace pbr::mgmt {

class Server;

struct NetconfOptions {
  std::string unixPath;  // empty: no UNIX socket endpoint
  // SSH endpoint; port 0: none.
  std::string sshAddress = "127.0.0.1";
  uint16_t sshPort = 0;
  std::string hostKeyPath;         // generated at first start when missing (mode 0600)
  std::string authorizedKeysPath;  // OpenSSH authorized_keys of the user the sessions run as
  std::string sshUser;             // the user allowed to log in with those keys
  uint16_t helloTimeout = 10;      // seconds
  uint16_t idleTimeout = 3600;     // seconds without an RPC before a session is closed
};

class NetconfServer {
 public:
  // Loads the modules NETCONF needs into a new server context (ServerOptions::extendContext):
  // the northbound works in the server's context.
  static bool LoadModules(ly_ctx* ctx, std::string* error);
  // Starts the endpoints; null with *error when one cannot be set up. `server` must outlive it
  // and must have been created with LoadModules.
  static std::unique_ptr<NetconfServer> Start(Server* server, const NetconfOptions& options,
                                              std::string* error);
  // Stops accepting, ends every session (joining its thread) and releases the library.
  ~NetconfServer();

  struct Impl;

 private:
  explicit NetconfServer(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace pbr::mgmt
