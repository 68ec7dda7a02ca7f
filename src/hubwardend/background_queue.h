// The host's background work queue: work dispatched by the module (the
// interface refresh, host name checks, time synchronisation) runs on a small
// pool of worker threads, concurrently with later calls. Work runs as the
// user of the call that dispatched it (its ScopedUser), so that what it does
// on a requester's behalf is still checked as that requester's. The host waits for
// the queue to drain before it stores the context and before it exits, so
// no work is cut off half way. Safe from any thread; work may dispatch more
// work.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/host_services.h"

namespace hubwardend {

class ThreadBackgroundQueue : public platform::BackgroundQueue {
 public:
  explicit ThreadBackgroundQueue(size_t max_threads = 4);
  // Drains the queue, then stops the workers.
  ~ThreadBackgroundQueue() override;
  ThreadBackgroundQueue(const ThreadBackgroundQueue&) = delete;
  ThreadBackgroundQueue& operator=(const ThreadBackgroundQueue&) = delete;

  // Queues work, to run under the dispatching thread's requesting user; a
  // worker starts it as soon as one is free. Exceptions
  // escaping work are caught and logged, never rethrown.
  void dispatch(std::function<void()> work) override;

  // Returns once nothing is queued or running, including work queued by
  // work. REQUIRES: not called from inside queued work (it would wait for
  // itself).
  void wait_until_idle();

 private:
  void worker_loop();

  const size_t max_threads_;
  std::mutex mu_;
  std::condition_variable work_ready_;
  std::condition_variable idle_;
  std::deque<std::function<void()>> queued_;  // guarded by mu_
  size_t running_ = 0;                        // guarded by mu_
  size_t waiting_workers_ = 0;                // guarded by mu_
  bool stopping_ = false;                     // guarded by mu_
  std::vector<std::thread> workers_;          // guarded by mu_
};

}  // namespace hubwardend
