// The daemon's idle passes: the module's periodic work, issued over and over
// with the pass number as decimal text ("0", "1", "2", ...). The first pass
// starts as soon as the schedule is started; each later one a period after
// the previous one ended, so a slow pass delays the next and two passes
// never overlap. Passes run off the loop thread, on a runner the daemon
// gives (a worker), so the loop keeps serving timers, signals and watches
// meanwhile.
//
// Thread-safety: every method is safe from any thread. The schedule's timer
// lives on the event loop; the pass itself runs on the runner.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "hubwardend/serve/event_loop.h"

namespace hubwardend::serve {

class IdleSchedule {
 public:
  // Runs one pass, given its number as text.
  using RunPass = std::function<void(const std::string& pass)>;
  // Hands work to another thread. Work it drops without running (a pool
  // that is closing) counts as a skipped pass: the next is issued a period
  // later with the same number.
  using Runner = std::function<void(std::function<void()> work)>;

  struct Stats {
    uint64_t passes_run = 0;  // passes that have ended
    std::chrono::nanoseconds last_duration{0};
    std::chrono::nanoseconds total_duration{0};
    bool running = false;  // a pass is on the runner now
  };

  // loop must outlive the schedule. A period below one millisecond counts as
  // one millisecond.
  IdleSchedule(EventLoop& loop, std::chrono::milliseconds period, RunPass run_pass, Runner runner);
  // Stops the schedule without waiting for a running pass; call stop()
  // first to wait for it.
  ~IdleSchedule();
  IdleSchedule(const IdleSchedule&) = delete;
  IdleSchedule& operator=(const IdleSchedule&) = delete;

  // Issues pass "0" at once (through the loop), then keeps going. Later
  // calls, and calls after stop(), do nothing.
  void start();

  // No pass starts after this call. Waits up to deadline for a pass already
  // running to end; returns true when none is running any more, false when
  // the deadline passed first (the pass goes on, unwatched). Blocks the
  // calling thread, so on the loop thread keep the deadline short.
  bool stop(std::chrono::milliseconds deadline);

  // The period for the passes scheduled from now on (a reload of the
  // configuration); a wait already under way keeps its old length.
  void set_period(std::chrono::milliseconds period);

  Stats stats() const;

  // The number that follows current. The module reads pass numbers as a C
  // int, and passes 0 and 1 do one-time work, so after INT32_MAX (68 years
  // at one pass a second) the count goes on at 2 rather than wrapping.
  static int next_pass_number(int current);

 private:
  struct State;
  class Ticket;
  // Loop thread: starts the next pass on the runner unless one is running
  // or the schedule has stopped.
  static void run_pass_now(const std::shared_ptr<State>& state);

  std::shared_ptr<State> state_;
};

}  // namespace hubwardend::serve
