// The middleware loop on sd-event: fd watches, timers, deferred calls, SIGTERM/SIGINT (end),
// SIGHUP (log reopened), and the propagation of a callback's exception out of
// vqmw_loop_while_timeout.
#include "element/middleware/loop.h"

#include <signal.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>

#include "element/middleware/handle.h"
#include "element/middleware/log.h"

namespace vqmw {
namespace {

// A source owned by its handle. The callback is shared so that it survives its own handle being
// destroyed from inside it (a connection closing itself, for example).
template <typename Callback>
class LoopSource : public Source {
 public:
  LoopSource(vqmw_s* mw, Callback cb) : mw_(mw), cb_(std::make_shared<Callback>(std::move(cb))) {}
  ~LoopSource() override { sd_event_source_disable_unref(source_); }

  template <typename... Args>
  void Call(Args... args) {
    std::shared_ptr<Callback> keep = cb_;
    mw_->Guarded([&] { (*keep)(args...); });
  }

  vqmw_s* mw_;
  std::shared_ptr<Callback> cb_;
  sd_event_source* source_ = nullptr;
};

using FdSource = LoopSource<std::function<void(uint32_t)>>;
using TimerSource = LoopSource<std::function<void()>>;

int OnFd(sd_event_source*, int, uint32_t revents, void* userdata) {
  static_cast<FdSource*>(userdata)->Call(revents);
  return 0;
}

int OnTimer(sd_event_source*, uint64_t, void* userdata) {
  static_cast<TimerSource*>(userdata)->Call();
  return 0;
}

int OnSignal(sd_event_source*, const signalfd_siginfo* info, void* userdata) {
  auto* mw = static_cast<vqmw_s*>(userdata);
  Logger().info("{}: {} received, ending the loop", mw->name, strsignal(info->ssi_signo));
  mw->RequestExit(0);
  return 0;
}

// Log rotation: the rotated file gets the first record, the new one the second.
int OnHangup(sd_event_source*, const signalfd_siginfo*, void* userdata) {
  auto* mw = static_cast<vqmw_s*>(userdata);
  Logger().info("{}: SIGHUP received, reopening the log", mw->name);
  ReopenLog();
  Logger().info("{}: log reopened", mw->name);
  return 0;
}

int OnDeadline(sd_event_source*, uint64_t, void* userdata) {
  static_cast<vqmw_s*>(userdata)->RequestExit(0);
  return 0;
}

// Runs the calls queued before this dispatch, in order. Calls they queue wait for the next
// iteration, so that a chain of deferred calls cannot starve fds and timers.
int OnDeferred(sd_event_source* source, void* userdata) {
  auto* mw = static_cast<vqmw_s*>(userdata);
  for (size_t n = mw->deferred.size(); n > 0 && !mw->exit_requested; --n) {
    std::function<void()> cb = std::move(mw->deferred.front());
    mw->deferred.pop_front();
    mw->Guarded(cb);
  }
  if (!mw->deferred.empty()) sd_event_source_set_enabled(source, SD_EVENT_ONESHOT);
  return 0;
}

}  // namespace

std::unique_ptr<Source> WatchFd(vqmw_t* mw, int fd, uint32_t events,
                                std::function<void(uint32_t revents)> cb) {
  assert(mw != nullptr && mw->event != nullptr);
  auto source = std::make_unique<FdSource>(mw, std::move(cb));
  int r = sd_event_add_io(mw->event, &source->source_, fd, events, OnFd, source.get());
  if (r < 0) {
    // A bad fd is the caller's bug; report it rather than crash, the handle then watches nothing.
    Logger().error("cannot watch fd {}: {}", fd, std::strerror(-r));
  }
  return source;
}

void SetFdEvents(Source& source, uint32_t events) {
  auto* fd_source = dynamic_cast<FdSource*>(&source);
  assert(fd_source != nullptr);
  if (fd_source == nullptr || fd_source->source_ == nullptr) return;
  int r = sd_event_source_set_io_events(fd_source->source_, events);
  if (r < 0) Logger().error("cannot change watched events: {}", std::strerror(-r));
}

std::unique_ptr<Source> StartTimer(vqmw_t* mw, std::chrono::microseconds delay,
                                   std::function<void()> cb) {
  assert(mw != nullptr && mw->event != nullptr);
  auto source = std::make_unique<TimerSource>(mw, std::move(cb));
  uint64_t usec = delay.count() > 0 ? static_cast<uint64_t>(delay.count()) : 0;
  // Accuracy 1 us: sd-event's default lets a timer slip by up to 250 ms.
  int r = sd_event_add_time_relative(mw->event, &source->source_, CLOCK_MONOTONIC, usec, 1, OnTimer,
                                     source.get());
  if (r < 0) Logger().error("cannot start a timer: {}", std::strerror(-r));
  return source;
}

void Defer(vqmw_t* mw, std::function<void()> cb) {
  assert(mw != nullptr && mw->deferred_source != nullptr);
  mw->deferred.push_back(std::move(cb));
  sd_event_source_set_enabled(mw->deferred_source, SD_EVENT_ONESHOT);
}

void Exit(vqmw_t* mw, int result) {
  assert(mw != nullptr);
  mw->RequestExit(result);
}

}  // namespace vqmw

vqmw_s::vqmw_s(std::string app_name, int fd) : name(std::move(app_name)), lock_fd(fd) {}

vqmw_s::~vqmw_s() {
  sd_event_source_disable_unref(deferred_source);
  // Disabling the signal sources unblocks SIGTERM, SIGINT and SIGHUP again.
  sd_event_source_disable_unref(sighup);
  sd_event_source_disable_unref(sigint);
  sd_event_source_disable_unref(sigterm);
  sd_event_unref(event);
  if (lock_fd >= 0) close(lock_fd);
}

bool vqmw_s::OpenLoop() {
  int r = sd_event_new(&event);
  // SD_EVENT_SIGNAL_PROCMASK blocks the signal for as long as the source exists, so that it
  // reaches the loop's signalfd instead of killing the process.
  if (r >= 0)
    r = sd_event_add_signal(event, &sigterm, SIGTERM | SD_EVENT_SIGNAL_PROCMASK, vqmw::OnSignal,
                            this);
  if (r >= 0)
    r = sd_event_add_signal(event, &sigint, SIGINT | SD_EVENT_SIGNAL_PROCMASK, vqmw::OnSignal,
                            this);
  if (r >= 0)
    r = sd_event_add_signal(event, &sighup, SIGHUP | SD_EVENT_SIGNAL_PROCMASK, vqmw::OnHangup,
                            this);
  if (r >= 0) r = sd_event_add_defer(event, &deferred_source, vqmw::OnDeferred, this);
  if (r >= 0) r = sd_event_source_set_enabled(deferred_source, SD_EVENT_OFF);
  if (r < 0) {
    vqmw::Logger().error("{}: cannot set up the event loop: {}", name, std::strerror(-r));
    return false;
  }
  return true;
}

void vqmw_s::RequestExit(int result) {
  if (exit_requested) return;
  exit_requested = true;
  exit_result = result;
}

extern "C" int vqmw_loop_while_timeout(vqmw_t* mw, bool* running, int timeout) {
  if (mw == nullptr || mw->event == nullptr) {
    vqmw::Logger().error("vqmw_loop_while_timeout: no middleware handle");
    return 1;
  }
  sd_event_source* deadline = nullptr;
  if (timeout > 0) {
    // From the clock's time now: sd_event_add_time_relative counts from the loop's last wakeup,
    // which would end this run early when the loop has run before.
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const uint64_t usec = static_cast<uint64_t>(now.tv_sec) * 1000000u +
                          static_cast<uint64_t>(now.tv_nsec) / 1000u +
                          static_cast<uint64_t>(timeout) * 1000u;
    int r = sd_event_add_time(mw->event, &deadline, CLOCK_MONOTONIC, usec, 1, vqmw::OnDeadline, mw);
    if (r < 0) {
      vqmw::Logger().error("{}: cannot arm the loop's timeout: {}", mw->name, std::strerror(-r));
      return 1;
    }
  }

  int result = 0;
  while (!mw->exit_requested && (running == nullptr || *running)) {
    int r = sd_event_run(mw->event, UINT64_MAX);
    if (r < 0) {
      vqmw::Logger().error("{}: the event loop failed: {}", mw->name, std::strerror(-r));
      result = 1;
      break;
    }
  }
  sd_event_source_disable_unref(deadline);

  if (mw->exit_requested && result == 0) result = mw->exit_result;
  mw->exit_requested = false;
  // Deferred calls left by an early end run in the next run of the loop.
  if (!mw->deferred.empty()) sd_event_source_set_enabled(mw->deferred_source, SD_EVENT_ONESHOT);
  if (mw->error) {
    std::exception_ptr error = std::exchange(mw->error, nullptr);
    std::rethrow_exception(error);
  }
  return result;
}
