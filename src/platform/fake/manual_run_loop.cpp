// A run loop turned by the test.
#include "platform/fake/manual_run_loop.h"

#include <poll.h>
#include <sys/epoll.h>

namespace platform {

ManualRunLoop::ManualRunLoop() : owner_(std::this_thread::get_id()) {}

RunLoop::Id ManualRunLoop::add_timer(std::chrono::milliseconds delay, std::function<void()> fire) {
  std::lock_guard lock(mutex_);
  if (stopped_) return 0;
  Id id = next_id_++;
  timers_.emplace(id, Timer{now_ + delay, std::move(fire)});
  return id;
}

RunLoop::Id ManualRunLoop::watch_fd(int fd, uint32_t events, std::function<void(uint32_t)> ready) {
  std::lock_guard lock(mutex_);
  if (stopped_ || fd < 0 || events == 0) return 0;
  Id id = next_id_++;
  watches_.emplace(id, Watch{fd, events, std::move(ready)});
  return id;
}

void ManualRunLoop::cancel(Id id) {
  std::lock_guard lock(mutex_);
  timers_.erase(id);
  watches_.erase(id);
}

bool ManualRunLoop::post(std::function<void()> work) {
  std::lock_guard lock(mutex_);
  if (stopped_) return false;
  posted_.push_back(std::move(work));
  return true;
}

bool ManualRunLoop::in_loop_thread() const { return std::this_thread::get_id() == owner_; }

int ManualRunLoop::advance(std::chrono::milliseconds step) {
  int fired = 0;
  std::chrono::milliseconds until;
  {
    std::lock_guard lock(mutex_);
    until = now_ + step;
  }
  for (;;) {
    std::function<void()> fire;
    {
      std::lock_guard lock(mutex_);
      auto next = timers_.end();
      for (auto it = timers_.begin(); it != timers_.end(); ++it)
        if (it->second.due <= until && (next == timers_.end() || it->second.due < next->second.due)) next = it;
      if (next == timers_.end()) {
        now_ = until;
        break;
      }
      now_ = next->second.due;
      fire = std::move(next->second.fire);
      timers_.erase(next);
    }
    fire();
    ++fired;
    run_posted();
  }
  return fired;
}

int ManualRunLoop::run_posted() {
  int ran = 0;
  for (;;) {
    std::vector<std::function<void()>> batch;
    {
      std::lock_guard lock(mutex_);
      batch.swap(posted_);
    }
    if (batch.empty()) return ran;
    for (auto& work : batch) work();
    ran += static_cast<int>(batch.size());
  }
}

int ManualRunLoop::poll_fds(std::chrono::milliseconds timeout) {
  std::vector<std::pair<Id, pollfd>> polled;
  {
    std::lock_guard lock(mutex_);
    for (const auto& [id, watch] : watches_) {
      short events = 0;
      if (watch.events & EPOLLIN) events |= POLLIN;
      if (watch.events & EPOLLOUT) events |= POLLOUT;
      if (watch.events & EPOLLPRI) events |= POLLPRI;
      polled.push_back({id, pollfd{watch.fd, events, 0}});
    }
  }
  std::vector<pollfd> fds;
  for (const auto& entry : polled) fds.push_back(entry.second);
  int ran = 0;
  if (!fds.empty() && ::poll(fds.data(), fds.size(), static_cast<int>(timeout.count())) > 0) {
    for (size_t i = 0; i < fds.size(); ++i) {
      if (fds[i].revents == 0) continue;
      std::function<void(uint32_t)> ready;
      {
        std::lock_guard lock(mutex_);
        auto it = watches_.find(polled[i].first);
        if (it == watches_.end()) continue;
        ready = it->second.ready;
      }
      uint32_t events = 0;
      if (fds[i].revents & POLLIN) events |= EPOLLIN;
      if (fds[i].revents & POLLOUT) events |= EPOLLOUT;
      if (fds[i].revents & POLLPRI) events |= EPOLLPRI;
      if (fds[i].revents & POLLERR) events |= EPOLLERR;
      if (fds[i].revents & POLLHUP) events |= EPOLLHUP;
      ready(events);
      ++ran;
    }
  }
  run_posted();
  return ran;
}

int ManualRunLoop::pending_timers() const {
  std::lock_guard lock(mutex_);
  return static_cast<int>(timers_.size());
}

void ManualRunLoop::stop() {
  std::lock_guard lock(mutex_);
  stopped_ = true;
}

}  // namespace platform
