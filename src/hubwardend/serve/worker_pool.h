// A fixed set of threads that run request work, with a bounded queue, so a
// flood of requests costs queue slots and quick refusals instead of
// threads. Safe from any thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace hubwardend::serve {

class WorkerPool {
 public:
  // name labels the threads ("hw-<name>") for debuggers and logs.
  WorkerPool(std::string name, size_t threads, size_t max_queued);
  // Runs what is queued, then joins the threads.
  ~WorkerPool();
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  // Queues work. Returns false, without queueing, when max_queued items are
  // already waiting or the pool is closed: the caller answers "busy".
  // Exceptions escaping work are caught and logged.
  bool submit(std::function<void()> work);

  // Refuses further work and waits until everything queued or running has
  // finished, or until deadline. True when it all finished in time.
  bool close_and_wait(std::chrono::steady_clock::time_point deadline);

  size_t queued() const;
  size_t busy() const;

 private:
  void run();

  const std::string name_;
  const size_t max_queued_;
  mutable std::mutex mu_;
  std::condition_variable work_ready_;
  std::condition_variable all_done_;
  std::deque<std::function<void()>> queue_;  // guarded by mu_
  size_t busy_ = 0;                          // guarded by mu_
  bool closed_ = false;                      // guarded by mu_
  bool exiting_ = false;                     // guarded by mu_
  std::vector<std::thread> threads_;
};

}  // namespace hubwardend::serve
