// Idle passes, one after another, on the loop's timer and the daemon's
// workers.
#include "hubwardend/serve/idle_schedule.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <condition_variable>
#include <mutex>
#include <utility>

namespace hubwardend::serve {
namespace {

std::chrono::milliseconds at_least_one(std::chrono::milliseconds period) {
  return std::max(period, std::chrono::milliseconds(1));
}

}  // namespace

// Shared with the timer and the work on the runner, so that a pass still
// running when the schedule is destroyed finds its bookkeeping intact.
struct IdleSchedule::State {
  State(EventLoop& l, std::chrono::milliseconds p, RunPass rp, Runner r)
      : loop(l), run_pass(std::move(rp)), runner(std::move(r)), period(p) {}

  EventLoop& loop;
  const RunPass run_pass;
  const Runner runner;

  mutable std::mutex mu;
  std::condition_variable pass_ended;
  std::chrono::milliseconds period;  // guarded by mu
  bool started = false;              // guarded by mu
  bool stopped = false;              // guarded by mu
  int next_pass = 0;                 // guarded by mu
  EventLoop::Id timer = 0;           // guarded by mu
  Stats stats;                       // guarded by mu
};

// One issued pass, shared by every copy of the work handed to the runner.
// The pass takes its number only when it starts, and its end is booked and
// the next pass scheduled whether it returns, throws, or never runs because
// the runner dropped the work (a closing worker pool): the schedule never
// waits for a pass that is not coming.
class IdleSchedule::Ticket {
 public:
  explicit Ticket(std::shared_ptr<State> state) : state_(std::move(state)) {}
  ~Ticket() {
    if (!started_.exchange(true)) finish(nullptr);
  }
  Ticket(const Ticket&) = delete;
  Ticket& operator=(const Ticket&) = delete;

  void run() {
    if (started_.exchange(true)) return;
    std::string pass;
    {
      std::lock_guard<std::mutex> lock(state_->mu);
      if (state_->stopped) {
        // Issued, but stop() came before a worker got to it.
        state_->stats.running = false;
        state_->pass_ended.notify_all();
        return;
      }
      pass = std::to_string(state_->next_pass);
      state_->next_pass = next_pass_number(state_->next_pass);
    }
    struct End {
      Ticket* ticket;
      std::chrono::steady_clock::time_point began = std::chrono::steady_clock::now();
      ~End() {
        std::chrono::nanoseconds took = std::chrono::steady_clock::now() - began;
        ticket->finish(&took);
      }
    } end{this};
    state_->run_pass(pass);
  }

 private:
  // took is null for a pass that never ran.
  void finish(const std::chrono::nanoseconds* took) {
    {
      std::lock_guard<std::mutex> lock(state_->mu);
      state_->stats.running = false;
      if (took != nullptr) {
        ++state_->stats.passes_run;
        state_->stats.last_duration = *took;
        state_->stats.total_duration += *took;
      }
      // The wait starts now that the pass has ended, so a slow pass
      // delays the next one instead of overlapping it.
      if (!state_->stopped) {
        std::shared_ptr<State> state = state_;
        state_->timer = state_->loop.add_timer(state_->period, [state] { run_pass_now(state); });
      }
    }
    state_->pass_ended.notify_all();
  }

  const std::shared_ptr<State> state_;
  std::atomic<bool> started_{false};
};

void IdleSchedule::run_pass_now(const std::shared_ptr<State>& state) {
  {
    std::lock_guard<std::mutex> lock(state->mu);
    if (state->stopped || state->stats.running) return;
    state->stats.running = true;
    state->timer = 0;
  }
  state->runner([ticket = std::make_shared<Ticket>(state)] { ticket->run(); });
}

IdleSchedule::IdleSchedule(EventLoop& loop, std::chrono::milliseconds period, RunPass run_pass, Runner runner)
    : state_(std::make_shared<State>(loop, at_least_one(period), std::move(run_pass), std::move(runner))) {}

IdleSchedule::~IdleSchedule() { stop(std::chrono::milliseconds(0)); }

void IdleSchedule::start() {
  {
    std::lock_guard<std::mutex> lock(state_->mu);
    if (state_->started || state_->stopped) return;
    state_->started = true;
  }
  std::shared_ptr<State> state = state_;
  state_->loop.post([state] { run_pass_now(state); });
}

bool IdleSchedule::stop(std::chrono::milliseconds deadline) {
  std::unique_lock<std::mutex> lock(state_->mu);
  state_->stopped = true;
  EventLoop::Id timer = std::exchange(state_->timer, 0);
  lock.unlock();
  state_->loop.cancel(timer);
  lock.lock();
  return state_->pass_ended.wait_for(lock, deadline, [this] { return !state_->stats.running; });
}

void IdleSchedule::set_period(std::chrono::milliseconds period) {
  std::lock_guard<std::mutex> lock(state_->mu);
  state_->period = at_least_one(period);
}

IdleSchedule::Stats IdleSchedule::stats() const {
  std::lock_guard<std::mutex> lock(state_->mu);
  return state_->stats;
}

int IdleSchedule::next_pass_number(int current) { return current == INT_MAX ? 2 : current + 1; }

}  // namespace hubwardend::serve
