// The sd-event main loop and its cross-thread hand-over.
#include "hubwardend/serve/event_loop.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/eventfd.h>
#include <systemd/sd-daemon.h>
#include <systemd/sd-event.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>

namespace hubwardend::serve {
namespace {

// Timers may fire this much late so that sd-event can share wake-ups with
// the watchdog; well below anything the module schedules.
constexpr uint64_t kTimerAccuracyUsec = 1000;

uint64_t monotonic_usec() {
  struct timespec ts;
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
}

bool signal_is_blocked(int signo) {
  sigset_t current;
  if (::pthread_sigmask(SIG_BLOCK, nullptr, &current) != 0) return false;
  return ::sigismember(&current, signo) == 1;
}

bool send_notify(const std::string& message) { return ::sd_notify(0, message.c_str()) > 0; }

}  // namespace

struct EventLoop::Source {
  Id id = 0;
  bool is_timer = false;
  bool cancelled = false;  // guarded by the loop's mu_
  // Timers: when to fire (CLOCK_MONOTONIC) and what to call.
  uint64_t deadline_usec = 0;
  std::function<void()> fire;
  // Watches.
  int fd = -1;
  uint32_t events = 0;
  std::function<void(uint32_t)> ready;
  sd_event_source* io = nullptr;  // loop thread only
  EventLoop* loop = nullptr;
};

struct EventLoop::Signal {
  sd_event_source* source = nullptr;
  std::function<void()> handle;
};

std::unique_ptr<EventLoop> EventLoop::create(std::string* error) {
  sd_event* event = nullptr;
  int r = ::sd_event_new(&event);
  if (r < 0) {
    *error = std::string("cannot make the event loop: ") + ::strerror(-r);
    return nullptr;
  }
  int wake_fd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wake_fd < 0) {
    *error = std::string("cannot make the loop's wake-up descriptor: ") + ::strerror(errno);
    ::sd_event_unref(event);
    return nullptr;
  }
  std::unique_ptr<EventLoop> loop(new EventLoop(event, wake_fd));
  if (!loop->init(error)) return nullptr;
  return loop;
}

EventLoop::EventLoop(sd_event* event, int wake_fd)
    : event_(event), wake_fd_(wake_fd), loop_thread_(std::this_thread::get_id()) {}

bool EventLoop::init(std::string* error) {
  int r = ::sd_event_add_io(event_, &wake_source_, wake_fd_, EPOLLIN, &EventLoop::on_wake, this);
  if (r >= 0) {
    r = ::sd_event_add_time(event_, &timer_source_, CLOCK_MONOTONIC, 0, kTimerAccuracyUsec, &EventLoop::on_timer, this);
  }
  if (r >= 0) r = ::sd_event_source_set_enabled(timer_source_, SD_EVENT_OFF);
  if (r < 0) {
    *error = std::string("cannot set up the event loop: ") + ::strerror(-r);
    return false;
  }
  // Keep-alives come from the loop itself, so a loop stuck in a callback
  // stops them and the service manager restarts the daemon. Without
  // WATCHDOG_USEC this does nothing.
  ::sd_event_set_watchdog(event_, 1);
  return true;
}

EventLoop::~EventLoop() {
  for (auto& [id, source] : sources_) {
    if (source->io != nullptr) ::sd_event_source_disable_unref(source->io);
  }
  sources_.clear();
  for (auto& [signo, signal] : signals_) ::sd_event_source_disable_unref(signal->source);
  signals_.clear();
  ::sd_event_source_disable_unref(timer_source_);
  ::sd_event_source_disable_unref(wake_source_);
  ::sd_event_unref(event_);
  ::close(wake_fd_);
}

void EventLoop::block_daemon_signals() {
  sigset_t set;
  ::sigemptyset(&set);
  ::sigaddset(&set, SIGTERM);
  ::sigaddset(&set, SIGINT);
  ::sigaddset(&set, SIGHUP);
  ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
  struct sigaction ignore = {};
  ignore.sa_handler = SIG_IGN;
  ::sigemptyset(&ignore.sa_mask);
  ::sigaction(SIGPIPE, &ignore, nullptr);
}

bool EventLoop::add_signal_handler(int signo, std::function<void()> handle) {
  if (!in_loop_thread() || !signal_is_blocked(signo) || signals_.contains(signo)) return false;
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (stopped_) return false;
  }
  auto signal = std::make_unique<Signal>();
  signal->handle = std::move(handle);
  if (::sd_event_add_signal(event_, &signal->source, signo, &EventLoop::on_signal, signal.get()) < 0) return false;
  signals_.emplace(signo, std::move(signal));
  return true;
}

int EventLoop::run() {
  loop_thread_.store(std::this_thread::get_id());
  int code = ::sd_event_loop(event_);
  {
    std::lock_guard<std::mutex> lock(mu_);
    stopped_ = true;
  }
  // Whoever posted was told the work would run; it cannot post more now.
  run_posted();
  return code;
}

void EventLoop::exit(int code) {
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (exit_requested_ || stopped_) return;
    exit_requested_ = true;
  }
  if (in_loop_thread()) {
    ::sd_event_exit(event_, code);
  } else {
    post([this, code] { ::sd_event_exit(event_, code); });
  }
}

platform::RunLoop::Id EventLoop::add_timer(std::chrono::milliseconds delay, std::function<void()> fire) {
  auto source = std::make_shared<Source>();
  source->is_timer = true;
  source->deadline_usec = monotonic_usec() + static_cast<uint64_t>(std::max<int64_t>(delay.count(), 0)) * 1000u;
  source->fire = std::move(fire);
  source->loop = this;
  Id id;
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (stopped_) return 0;
    id = source->id = next_id_++;
    sources_.emplace(id, std::move(source));
  }
  if (in_loop_thread()) {
    arm(id);
  } else {
    post([this, id] { arm(id); });
  }
  return id;
}

platform::RunLoop::Id EventLoop::watch_fd(int fd, uint32_t events, std::function<void(uint32_t)> ready) {
  // From another thread the watch is made later, so catch the one mistake
  // that can be seen now.
  if (fd < 0 || events == 0) return 0;
  if (!in_loop_thread() && ::fcntl(fd, F_GETFD) < 0) return 0;
  auto source = std::make_shared<Source>();
  source->fd = fd;
  source->events = events;
  source->ready = std::move(ready);
  source->loop = this;
  Id id;
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (stopped_) return 0;
    id = source->id = next_id_++;
    sources_.emplace(id, source);
  }
  if (!in_loop_thread()) {
    post([this, id] { arm(id); });
    return id;
  }
  arm(id);
  std::lock_guard<std::mutex> lock(mu_);
  return sources_.contains(id) ? id : 0;
}

void EventLoop::cancel(Id id) {
  if (id == 0) return;
  {
    std::lock_guard<std::mutex> lock(mu_);
    auto it = sources_.find(id);
    if (it == sources_.end() || it->second->cancelled) return;
    it->second->cancelled = true;
  }
  if (in_loop_thread()) {
    disarm(id);
  } else {
    // If the loop has stopped, the entry stays until the loop is destroyed;
    // it can no longer fire either way.
    post([this, id] { disarm(id); });
  }
}

bool EventLoop::post(std::function<void()> work) {
  bool wake;
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (stopped_) return false;
    // One write per batch: the loop takes the whole queue each time it
    // wakes, so only the first post into an empty queue needs to wake it.
    wake = posted_.empty();
    posted_.push_back(std::move(work));
  }
  if (wake) {
    uint64_t one = 1;
    // Fails only when the counter is saturated, and then the loop is
    // already due to wake.
    (void)!::write(wake_fd_, &one, sizeof one);
  }
  return true;
}

bool EventLoop::in_loop_thread() const { return loop_thread_.load() == std::this_thread::get_id(); }

void EventLoop::arm(Id id) {
  std::shared_ptr<Source> source;
  {
    std::lock_guard<std::mutex> lock(mu_);
    auto it = sources_.find(id);
    if (it == sources_.end() || it->second->cancelled) return;
    source = it->second;
  }
  if (source->is_timer) {
    deadlines_.emplace(source->deadline_usec, id);
    rearm_timer();
    return;
  }
  if (::sd_event_add_io(event_, &source->io, source->fd, source->events, &EventLoop::on_io, source.get()) < 0) {
    source->io = nullptr;
    std::lock_guard<std::mutex> lock(mu_);
    sources_.erase(id);
  }
}

void EventLoop::disarm(Id id) {
  std::shared_ptr<Source> source;
  {
    std::lock_guard<std::mutex> lock(mu_);
    auto it = sources_.find(id);
    if (it == sources_.end()) return;
    source = std::move(it->second);
    sources_.erase(it);
  }
  if (source->is_timer) {
    // The shared timer may still wake for this deadline; it then finds
    // nothing due and rearms.
    deadlines_.erase({source->deadline_usec, id});
  } else if (source->io != nullptr) {
    // Safe inside the watch's own callback: sd-event keeps the object until
    // the callback returns.
    source->io = ::sd_event_source_disable_unref(source->io);
  }
}

void EventLoop::rearm_timer() {
  if (deadlines_.empty()) {
    ::sd_event_source_set_enabled(timer_source_, SD_EVENT_OFF);
    return;
  }
  ::sd_event_source_set_time(timer_source_, deadlines_.begin()->first);
  ::sd_event_source_set_enabled(timer_source_, SD_EVENT_ONESHOT);
}

void EventLoop::run_due_timers() {
  uint64_t now = monotonic_usec();
  while (!deadlines_.empty() && deadlines_.begin()->first <= now) {
    Id id = deadlines_.begin()->second;
    deadlines_.erase(deadlines_.begin());
    std::shared_ptr<Source> source;
    {
      std::lock_guard<std::mutex> lock(mu_);
      if (exit_requested_) break;
      auto it = sources_.find(id);
      if (it == sources_.end()) continue;
      source = std::move(it->second);
      sources_.erase(it);
      if (source->cancelled) continue;
    }
    source->fire();
  }
  rearm_timer();
}

void EventLoop::run_posted() {
  for (;;) {
    std::deque<std::function<void()>> batch;
    {
      std::lock_guard<std::mutex> lock(mu_);
      batch.swap(posted_);
    }
    if (batch.empty()) return;
    for (auto& work : batch) work();
    // While running, the loop comes back through on_wake; after it has
    // stopped nothing more can be posted, so this ends.
    std::lock_guard<std::mutex> lock(mu_);
    if (!stopped_) return;
  }
}

// The callbacks are noexcept: an exception cannot travel through sd-event's
// C frames, and a callback that throws is a bug best ended at once.
int EventLoop::on_wake(sd_event_source*, int fd, uint32_t, void* self) noexcept {
  uint64_t count;
  (void)!::read(fd, &count, sizeof count);
  static_cast<EventLoop*>(self)->run_posted();
  return 0;
}

int EventLoop::on_timer(sd_event_source*, uint64_t, void* self) noexcept {
  static_cast<EventLoop*>(self)->run_due_timers();
  return 0;
}

int EventLoop::on_io(sd_event_source*, int, uint32_t revents, void* raw) noexcept {
  Source* watched = static_cast<Source*>(raw);
  EventLoop* loop = watched->loop;
  std::shared_ptr<Source> source;
  {
    std::lock_guard<std::mutex> lock(loop->mu_);
    auto it = loop->sources_.find(watched->id);
    if (it == loop->sources_.end() || it->second->cancelled) return 0;
    // Held so that a callback that cancels its own watch keeps running.
    source = it->second;
  }
  source->ready(revents);
  return 0;
}

int EventLoop::on_signal(sd_event_source*, const struct signalfd_siginfo*, void* raw) noexcept {
  static_cast<Signal*>(raw)->handle();
  return 0;
}

bool EventLoop::notify_ready() { return send_notify("READY=1"); }

bool EventLoop::notify_stopping() { return send_notify("STOPPING=1"); }

bool EventLoop::notify_reloading() {
  // The time stamp lets a service manager that tracks reloads tell this
  // reload from an earlier one; others ignore it.
  char message[64];
  std::snprintf(message, sizeof message, "RELOADING=1\nMONOTONIC_USEC=%" PRIu64, monotonic_usec());
  return send_notify(message);
}

bool EventLoop::notify_status(const std::string& text) {
  // One line: a newline would start another assignment, such as READY=1.
  std::string line = text;
  std::replace(line.begin(), line.end(), '\n', ' ');
  return send_notify("STATUS=" + line);
}

}  // namespace hubwardend::serve
