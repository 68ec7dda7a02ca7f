// A run loop for tests that the test turns by hand: time stands still until
// advance(), posted work waits for run_posted(), and descriptor watches are
// looked at only in poll_fds(). So a test decides exactly when timers fire
// and can count them, without sleeping.
//
// The RunLoop methods are safe from any thread; the turning methods
// (advance, run_posted, poll_fds) belong to the test's thread, which is the
// loop's thread.
#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/run_loop.h"

namespace platform {

class ManualRunLoop : public RunLoop {
 public:
  ManualRunLoop();

  Id add_timer(std::chrono::milliseconds delay, std::function<void()> fire) override;
  Id watch_fd(int fd, uint32_t events, std::function<void(uint32_t events)> ready) override;
  void cancel(Id id) override;
  bool post(std::function<void()> work) override;
  bool in_loop_thread() const override;

  // Moves the clock on by step, firing the timers that fall due in order
  // of their due time (and the work they post). Returns how many fired.
  int advance(std::chrono::milliseconds step);
  // Runs posted work, including work posted meanwhile; returns how much ran.
  int run_posted();
  // Waits up to timeout for any watched descriptor, calls the ready
  // callbacks of those that are, then runs posted work. Returns how many
  // callbacks ran.
  int poll_fds(std::chrono::milliseconds timeout);

  // Timers armed and not yet fired or cancelled.
  int pending_timers() const;
  // Makes later add_timer, watch_fd and post fail, as a stopped loop does.
  void stop();

 private:
  struct Timer {
    std::chrono::milliseconds due;
    std::function<void()> fire;
  };
  struct Watch {
    int fd;
    uint32_t events;
    std::function<void(uint32_t)> ready;
  };

  mutable std::mutex mutex_;
  std::thread::id owner_;
  bool stopped_ = false;
  Id next_id_ = 1;
  std::chrono::milliseconds now_{0};
  std::map<Id, Timer> timers_;
  std::map<Id, Watch> watches_;
  std::vector<std::function<void()>> posted_;
};

}  // namespace platform
