// The application object: owns the configuration handler and the framework binding, and runs the
// middleware loop. The process entry builds it last and destroys it first.
#pragma once

#include "config/cache.h"
#include "config/config_handler.h"
#include "platform/pbr_client.h"
#include "platform/vqconfd.h"
#include "platform/vqmw.h"
#include "status/status.h"

namespace pbr {

class App {
 public:
  // None of the arguments is owned; the client and the cache go to the configuration handler.
  App(vqmw_t* mw, zlog_category_t* category, PbrClient* client, Status* status, ConfigCache* cache);
  virtual ~App() = default;  // the binding goes before the configuration handler
  App(const App&) = delete;
  App& operator=(const App&) = delete;

  // Runs the loop until the middleware ends it: 0 for a normal end, 1 otherwise. Exceptions from
  // the loop pass through.
  int Run(int timeout);

 private:
  vqmw_t* mw;
  zlog_category_t* category;
  ConfigHandler configHandler;
  Status* status;
  vqconfd::AppInterface appInterface;
};

}  // namespace pbr
