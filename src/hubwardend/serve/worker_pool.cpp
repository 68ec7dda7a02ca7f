#include "hubwardend/serve/worker_pool.h"

#include <pthread.h>

#include <exception>

#include "platform/log.h"

namespace hubwardend::serve {

WorkerPool::WorkerPool(std::string name, size_t threads, size_t max_queued)
    : name_(std::move(name)), max_queued_(max_queued) {
  if (threads == 0) threads = 1;
  threads_.reserve(threads);
  for (size_t i = 0; i < threads; ++i) {
    threads_.emplace_back([this] { run(); });
    // Thread names are limited to 15 bytes; a longer one is simply not set.
    pthread_setname_np(threads_.back().native_handle(), ("hw-" + name_).substr(0, 15).c_str());
  }
}

WorkerPool::~WorkerPool() {
  {
    std::unique_lock<std::mutex> lock(mu_);
    closed_ = true;
    all_done_.wait(lock, [this] { return queue_.empty() && busy_ == 0; });
    exiting_ = true;
  }
  work_ready_.notify_all();
  for (std::thread& t : threads_) t.join();
}

bool WorkerPool::submit(std::function<void()> work) {
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (closed_ || queue_.size() >= max_queued_) return false;
    queue_.push_back(std::move(work));
  }
  work_ready_.notify_one();
  return true;
}

bool WorkerPool::close_and_wait(std::chrono::steady_clock::time_point deadline) {
  std::unique_lock<std::mutex> lock(mu_);
  closed_ = true;
  return all_done_.wait_until(lock, deadline, [this] { return queue_.empty() && busy_ == 0; });
}

size_t WorkerPool::queued() const {
  std::lock_guard<std::mutex> lock(mu_);
  return queue_.size();
}

size_t WorkerPool::busy() const {
  std::lock_guard<std::mutex> lock(mu_);
  return busy_;
}

void WorkerPool::run() {
  std::unique_lock<std::mutex> lock(mu_);
  for (;;) {
    work_ready_.wait(lock, [this] { return exiting_ || !queue_.empty(); });
    if (queue_.empty()) return;  // exiting and nothing left
    std::function<void()> work = std::move(queue_.front());
    queue_.pop_front();
    ++busy_;
    lock.unlock();
    try {
      work();
    } catch (const std::exception& e) {
      platform::log_error("hubwardend: " + name_ + " work failed: " + e.what());
    } catch (...) {
      platform::log_error("hubwardend: " + name_ + " work failed");
    }
    work = nullptr;  // captured state goes before the pool counts it done
    lock.lock();
    --busy_;
    if (queue_.empty() && busy_ == 0) all_done_.notify_all();
  }
}

}  // namespace hubwardend::serve
