// Resolver threads and their bounded queue.
#include "hubwardend/resolver_pool.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

namespace hubwardend {

struct ResolverPool::State {
  struct Job {
    std::function<void()> lookup;
    Clock::time_point deadline;
  };

  explicit State(size_t max) : max_queued(max) {}

  const size_t max_queued;
  std::mutex mu;
  std::condition_variable ready;
  std::deque<Job> queue;  // guarded by mu
  bool stopping = false;  // guarded by mu

  static void work(const std::shared_ptr<State>& state) {
    std::unique_lock<std::mutex> lock(state->mu);
    for (;;) {
      state->ready.wait(lock, [&] { return state->stopping || !state->queue.empty(); });
      if (state->stopping) return;
      Job job = std::move(state->queue.front());
      state->queue.pop_front();
      if (Clock::now() > job.deadline) continue;  // nobody waits for it any more
      lock.unlock();
      job.lookup();
      job.lookup = nullptr;  // release what it holds outside the lock
      lock.lock();
    }
  }
};

ResolverPool::ResolverPool(size_t threads, size_t max_queued) : state_(std::make_shared<State>(max_queued)) {
  if (threads == 0) threads = 1;
  for (size_t i = 0; i < threads; ++i) {
    try {
      std::thread([state = state_] { State::work(state); }).detach();
    } catch (const std::system_error&) {
      break;  // fewer threads; lookups still run, just fewer at once
    }
  }
}

ResolverPool::~ResolverPool() {
  std::deque<State::Job> dropped;
  {
    std::lock_guard<std::mutex> lock(state_->mu);
    state_->stopping = true;
    dropped.swap(state_->queue);
  }
  state_->ready.notify_all();
}

bool ResolverPool::submit(std::function<void()> lookup, Clock::time_point deadline) {
  {
    std::lock_guard<std::mutex> lock(state_->mu);
    if (state_->stopping || state_->queue.size() >= state_->max_queued) return false;
    state_->queue.push_back({std::move(lookup), deadline});
  }
  state_->ready.notify_one();
  return true;
}

size_t ResolverPool::queued() const {
  std::lock_guard<std::mutex> lock(state_->mu);
  return state_->queue.size();
}

}  // namespace hubwardend
