// Worker pool behind the background queue. Threads are started on demand,
// up to the limit, and live until the queue is destroyed.
#include "hubwardend/background_queue.h"

#include <exception>
#include <string>

#include "hubwardend/requester.h"
#include "platform/log.h"

namespace hubwardend {

ThreadBackgroundQueue::ThreadBackgroundQueue(size_t max_threads) : max_threads_(max_threads ? max_threads : 1) {}

ThreadBackgroundQueue::~ThreadBackgroundQueue() {
  wait_until_idle();
  std::vector<std::thread> workers;
  {
    std::lock_guard<std::mutex> lock(mu_);
    stopping_ = true;
    workers.swap(workers_);
  }
  work_ready_.notify_all();
  for (std::thread& t : workers) t.join();
}

void ThreadBackgroundQueue::dispatch(std::function<void()> work) {
  if (!work) return;
  if (std::optional<std::string> user = scoped_user()) {
    work = [user = std::move(*user), inner = std::move(work)] {
      ScopedUser as(user);
      inner();
    };
  }
  std::lock_guard<std::mutex> lock(mu_);
  queued_.push_back(std::move(work));
  // A new thread only when every existing one is busy.
  if (waiting_workers_ < queued_.size() && workers_.size() < max_threads_)
    workers_.emplace_back([this] { worker_loop(); });
  work_ready_.notify_one();
}

void ThreadBackgroundQueue::wait_until_idle() {
  std::unique_lock<std::mutex> lock(mu_);
  idle_.wait(lock, [this] { return queued_.empty() && running_ == 0; });
}

void ThreadBackgroundQueue::worker_loop() {
  std::unique_lock<std::mutex> lock(mu_);
  for (;;) {
    ++waiting_workers_;
    work_ready_.wait(lock, [this] { return stopping_ || !queued_.empty(); });
    --waiting_workers_;
    if (queued_.empty()) return;  // stopping, and nothing left to do
    std::function<void()> work = std::move(queued_.front());
    queued_.pop_front();
    ++running_;
    lock.unlock();
    try {
      work();
    } catch (const std::exception& e) {
      platform::log_error(std::string("hubwardend: background work failed: ") + e.what());
    } catch (...) {
      platform::log_error("hubwardend: background work failed");
    }
    lock.lock();
    --running_;
    if (queued_.empty() && running_ == 0) idle_.notify_all();
  }
}

}  // namespace hubwardend
