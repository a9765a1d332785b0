// Event sources on the middleware loop, for the element's own libraries (framework, PBR manager
// client). Every callback runs on the thread that runs vqmw_loop_while_timeout, one at a time.
// A source is removed when its handle is destroyed; destroy handles before vqmw_finish.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "platform/vqmw.h"

namespace vqmw {

class Source {
 public:
  virtual ~Source() = default;
};

// Calls `cb` with the ready events (EPOLLIN, EPOLLOUT, EPOLLERR, EPOLLHUP) whenever `fd` is
// ready for any of `events`. The fd stays owned by the caller.
std::unique_ptr<Source> WatchFd(vqmw_t* mw, int fd, uint32_t events,
                                std::function<void(uint32_t revents)> cb);

// Changes the events a WatchFd source waits for (for example adding EPOLLOUT while output is
// queued).
void SetFdEvents(Source& source, uint32_t events);

// Calls `cb` once, `delay` from now.
std::unique_ptr<Source> StartTimer(vqmw_t* mw, std::chrono::microseconds delay,
                                   std::function<void()> cb);

// Runs `cb` on the loop after the current callback returns, in the order of the Defer calls.
void Defer(vqmw_t* mw, std::function<void()> cb);

// Ends the loop with `result` (0 normal end) once the current callback returns.
void Exit(vqmw_t* mw, int result);

// The element's runtime directory (locks, sockets, fault log), created on first use:
// $PBR_ELEMENT_RUNTIME_DIR, else /run/pbr-element.
const std::string& RuntimeDir();

}  // namespace vqmw
