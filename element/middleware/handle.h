// The middleware handle behind vqmw_t: one registered process and its sd-event loop. Private to
// the middleware library; everything runs on the thread that runs the loop.
#pragma once

#include <systemd/sd-event.h>

#include <deque>
#include <exception>
#include <functional>
#include <string>

#include "platform/vqmw.h"

struct vqmw_s {
  // Takes `lock_fd`, which holds the registration lock on `name`.
  vqmw_s(std::string app_name, int lock_fd);
  ~vqmw_s();
  vqmw_s(const vqmw_s&) = delete;
  vqmw_s& operator=(const vqmw_s&) = delete;

  // Creates the loop with its signal and deferred-call sources; false (logged) on failure.
  bool OpenLoop();

  // Ends the current (or next) run of the loop with `result`; the first request wins.
  void RequestExit(int result);

  // Runs one callback of the loop; an exception ends the loop and is rethrown by
  // vqmw_loop_while_timeout.
  template <typename F>
  void Guarded(F&& callback) {
    try {
      callback();
    } catch (...) {
      if (!error) error = std::current_exception();
      RequestExit(1);
    }
  }

  std::string name;
  int lock_fd = -1;
  sd_event* event = nullptr;
  sd_event_source* sigterm = nullptr;
  sd_event_source* sigint = nullptr;
  sd_event_source* sighup = nullptr;
  sd_event_source* deferred_source = nullptr;
  std::deque<std::function<void()>> deferred;
  bool exit_requested = false;
  int exit_result = 0;
  std::exception_ptr error;
};
