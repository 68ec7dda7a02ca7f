// The daemon's main loop: one sd-event loop on the main thread that owns the
// idle timer, the signals the daemon reacts to, the watchdog keep-alives and
// every run-loop service the module asks for (one-shot timers, descriptor
// watches, work posted from other threads).
//
// Thread-safety: add_timer, watch_fd, cancel, post, in_loop_thread, exit and
// the notify_* calls are safe from any thread. sd-event itself is not, so a
// call from another thread hands its change to the loop through post, and
// callbacks always run on the loop thread, one at a time. run() and
// add_signal_handler() belong to the loop thread.
//
// Lifecycle: create() on the thread that will call run(); run() until
// exit(); once run() has returned the loop is stopped for good: add_timer
// and watch_fd return 0 and post returns false. Destroy the loop on its own
// thread, after run() has returned or without ever running it.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>

#include "platform/run_loop.h"

struct sd_event;
struct sd_event_source;
struct signalfd_siginfo;

namespace hubwardend::serve {

class EventLoop : public platform::RunLoop {
 public:
  // A new loop bound to the calling thread, with watchdog keep-alives
  // switched on when the service manager asked for them (WATCHDOG_USEC).
  // Returns nullptr with *error set when sd-event or the wake-up descriptor
  // cannot be made.
  static std::unique_ptr<EventLoop> create(std::string* error);
  ~EventLoop() override;

  // Blocks SIGTERM, SIGINT and SIGHUP in the calling thread (and so in every
  // thread it starts afterwards) and ignores SIGPIPE, so that those signals
  // reach the daemon only through the loop and a peer that goes away only
  // fails a write. Call on the main thread before any other thread exists.
  static void block_daemon_signals();

  // Calls handle on the loop thread each time signo arrives. signo must be
  // blocked already (block_daemon_signals). One handler per signal. Returns
  // false when signo is not blocked, already has a handler, the loop has
  // stopped, or this is not the loop thread.
  bool add_signal_handler(int signo, std::function<void()> handle);

  // Runs callbacks until exit() is called; returns the code given to it, or
  // a negative errno when the loop itself failed. Work posted before the
  // loop stopped still runs, on this thread, before run() returns; pending
  // timers and watches are dropped. REQUIRES: the loop thread; called once.
  int run();
  // Makes run() return code after the callback now running (if any)
  // finishes. Safe from any thread and from callbacks; later calls are
  // ignored.
  void exit(int code);

  // platform::RunLoop. Timers and watches added from another thread are
  // armed by the loop shortly after; a watch on a descriptor that turns out
  // to be unusable then never fires.
  Id add_timer(std::chrono::milliseconds delay, std::function<void()> fire) override;
  Id watch_fd(int fd, uint32_t events, std::function<void(uint32_t events)> ready) override;
  // Once cancel has returned the callback is never started again, whatever
  // the calling thread.
  void cancel(Id id) override;
  bool post(std::function<void()> work) override;
  bool in_loop_thread() const override;

  // Messages to the service manager. Each is a no-op returning false when
  // the daemon was not started with a notification socket (NOTIFY_SOCKET).
  // Reloading is followed by notify_ready() once the new configuration is in
  // force; notify_status sets the one-line status systemctl shows.
  static bool notify_ready();
  static bool notify_stopping();
  static bool notify_reloading();
  static bool notify_status(const std::string& text);

  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

 private:
  struct Source;
  struct Signal;

  EventLoop(sd_event* event, int wake_fd);
  bool init(std::string* error);
  // Loop thread only: puts a new source into sd-event, or takes a spent or
  // cancelled one out of it.
  void arm(Id id);
  void disarm(Id id);
  void rearm_timer();
  void run_posted();
  void run_due_timers();
  static int on_wake(sd_event_source*, int fd, uint32_t revents, void* self) noexcept;
  static int on_timer(sd_event_source*, uint64_t usec, void* self) noexcept;
  static int on_io(sd_event_source*, int fd, uint32_t revents, void* source) noexcept;
  static int on_signal(sd_event_source*, const struct signalfd_siginfo*, void* signal) noexcept;

  sd_event* const event_;
  const int wake_fd_;  // eventfd: post() writes, the loop reads
  sd_event_source* wake_source_ = nullptr;
  // All one-shot timers share one sd-event timer, armed for the earliest
  // deadline, so that timers fire strictly in deadline order (sd-event
  // coalesces nearby timers and then dispatches them in no set order).
  sd_event_source* timer_source_ = nullptr;
  std::set<std::pair<uint64_t, Id>> deadlines_;  // loop thread only
  std::atomic<std::thread::id> loop_thread_;
  std::atomic<Id> next_id_{1};

  std::mutex mu_;
  std::deque<std::function<void()>> posted_;                  // guarded by mu_
  std::unordered_map<Id, std::shared_ptr<Source>> sources_;   // guarded by mu_
  bool stopped_ = false;                                      // guarded by mu_
  bool exit_requested_ = false;                               // guarded by mu_
  std::unordered_map<int, std::unique_ptr<Signal>> signals_;  // loop thread only
};

}  // namespace hubwardend::serve
