// The daemon's main run loop, as the module sees it: one-shot timers,
// descriptor watches (inotify, netlink, Avahi's sockets) and work posted to
// run on the loop's thread. Every callback runs on the loop thread, one at
// a time, so code that only runs in callbacks needs no lock of its own.
// Callbacks must return quickly: anything slow belongs on the background
// queue.
//
// The methods themselves are safe from any thread. A host without a
// long-running loop (the one-shot command line) installs none; callers
// check platform::has<RunLoop>() or cope with a null service.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>

namespace platform {

class RunLoop {
 public:
  using Id = uint64_t;  // 0 is never a valid id

  virtual ~RunLoop() = default;
  RunLoop() = default;
  RunLoop(const RunLoop&) = delete;
  RunLoop& operator=(const RunLoop&) = delete;

  // Runs fire once on the loop thread after delay. Returns the timer's id,
  // or 0 when the loop has stopped (fire is then never called).
  virtual Id add_timer(std::chrono::milliseconds delay, std::function<void()> fire) = 0;
  // Calls ready(events) on the loop thread whenever fd has any of events
  // (EPOLLIN, EPOLLOUT, ...). fd stays the caller's; remove the watch
  // before closing it. Returns 0 when the watch could not be made.
  virtual Id watch_fd(int fd, uint32_t events, std::function<void(uint32_t events)> ready) = 0;
  // Stops a timer or a watch; a callback already running finishes. Unknown
  // or spent ids are ignored.
  virtual void cancel(Id id) = 0;
  // Runs work on the loop thread soon; false when the loop has stopped.
  virtual bool post(std::function<void()> work) = 0;
  // True on the loop's own thread.
  virtual bool in_loop_thread() const = 0;
};

}  // namespace platform
