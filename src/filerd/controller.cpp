#include "filerd/controller.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "filerd/codes.h"
#include "filerd/records.h"

// GCC 12 warns that the string inside a moved reply field "may be used
// uninitialized" when it inlines the vector of variants growing; the
// variant holds a word there, never a string. A known false alarm.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

namespace filerd {
namespace {

using platform::FilerMessage;

FilerMessage reply_to(const FilerMessage& request) {
  FilerMessage reply;
  reply.id = request.id + platform::kFilerReplyOffset;
  return reply;
}

uint32_t word_field(const FilerMessage& message, size_t index) { return std::get<uint32_t>(message.fields[index]); }

const std::string& bytes_field(const FilerMessage& message, size_t index) {
  return std::get<std::string>(message.fields[index]);
}

std::set<uint32_t> session_ids(const platform::SambaStatus& status) {
  std::set<uint32_t> ids;
  for (const platform::SambaSession& session : status.sessions) ids.insert(session.session_id);
  return ids;
}

// Without blocking and without SIGPIPE, whether the descriptor is a socket
// or a pipe. false when the record did not go out whole.
bool write_event(int fd, const std::string& record) {
  ssize_t sent = ::send(fd, record.data(), record.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  if (sent >= 0 || errno != ENOTSOCK) return sent == ssize_t(record.size());
  // A pipe: write() has no MSG_NOSIGNAL, so a SIGPIPE for a gone reader is
  // held blocked in this thread and taken back before it is unblocked.
  sigset_t pipe_signal, old_mask;
  sigemptyset(&pipe_signal);
  sigaddset(&pipe_signal, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe_signal, &old_mask);
  int mode = ::fcntl(fd, F_GETFL);
  if (mode >= 0 && !(mode & O_NONBLOCK)) ::fcntl(fd, F_SETFL, mode | O_NONBLOCK);
  sent = ::write(fd, record.data(), record.size());
  if (sent < 0 && errno == EPIPE) {
    timespec no_wait{0, 0};
    sigtimedwait(&pipe_signal, nullptr, &no_wait);
  }
  pthread_sigmask(SIG_SETMASK, &old_mask, nullptr);
  return sent == ssize_t(record.size());
}

}  // namespace

Controller::Controller(Samba& samba, LogFn log, std::chrono::milliseconds watch_interval)
    : samba_(samba), log_(std::move(log)), watch_interval_(watch_interval) {
  timer_ = std::thread([this] { timer_loop(); });
}

Controller::~Controller() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    quitting_ = true;
  }
  wake_.notify_all();
  timer_.join();
}

FilerMessage Controller::handle(FilerMessage& request, IteratorTable& iterators) {
  FilerMessage reply = reply_to(request);
  auto status = [&](int32_t code) { reply.fields.push_back(uint32_t(code)); };
  switch (request.id) {
    case platform::kFilerGetServerAttribute: {
      uint32_t code = word_field(request, 0);
      if (code != platform::kFilerStateAttribute) {
        status(kStatusBadArgument);
        reply.fields.push_back(std::string());
        break;
      }
      // The whole record goes back even to a smaller buffer: the client
      // copies what fits and reports the truncation.
      status(kStatusOk);
      reply.fields.push_back(state_record());
      break;
    }
    case platform::kFilerSetServerAttribute:
      status(kStatusBadArgument);  // nothing here is settable
      break;
    case platform::kFilerSendServerCommand: {
      std::string data;
      int32_t result = command(word_field(request, 1), bytes_field(request, 0), &data);
      status(result);
      reply.fields.push_back(std::move(data));
      break;
    }
    case platform::kFilerCreateObjectIterator: {
      uint32_t kind = word_field(request, 0), id = 0;
      int32_t result = kStatusBadArgument;
      if (kind == kIterSessions || kind == kIterShares) {
        platform::SambaStatus snapshot = samba_.status();
        result = snapshot.read ? iterators.create(kind, snapshot, &id) : kStatusToolFailed;
      }
      status(result);
      reply.fields.push_back(id);
      break;
    }
    case platform::kFilerGetIterAttribute: {
      std::string value;
      status(iterators.get(word_field(request, 0), word_field(request, 1), &value));
      reply.fields.push_back(std::move(value));
      break;
    }
    case platform::kFilerAdvanceIterator:
      status(iterators.advance(word_field(request, 0)));
      break;
    case platform::kFilerDestroyIterator:
      status(iterators.destroy(word_field(request, 0)));
      break;
    case platform::kFilerRegisterNotifyPort:
      status(register_listener(word_field(request, 1), bytes_field(request, 0), std::move(request.descriptor)));
      break;
    default:
      status(kStatusBadArgument);
      break;
  }
  return reply;
}

std::string Controller::state_record() {
  ServerState state;
  state.pid = samba_.running_pid();
  state.running = state.pid != 0;
  std::lock_guard<std::mutex> lock(mutex_);
  if (stop_at_) {
    auto left = *stop_at_ - std::chrono::steady_clock::now();
    auto minutes = std::chrono::ceil<std::chrono::minutes>(left).count();
    state.minutes_to_stop = uint32_t(std::max<int64_t>(minutes, 1));
  }
  return encode_state_record(state);
}

int32_t Controller::command(uint32_t code, const std::string& data, std::string* reply) {
  switch (code) {
    case platform::kFilerRecycleCommand:
      return samba_.reload() ? kStatusOk : kStatusToolFailed;
    case platform::kFilerDisconnectCommand:
      return disconnect(data, reply);
    case platform::kFilerShutdownCommand: {
      int32_t result = shutdown(data);
      if (result == kStatusOk) *reply = make_word_record(0);
      return result;
    }
    case platform::kFilerCancelTimerCommand: {
      if (!parse_word_record(data)) return kStatusBadArgument;
      std::lock_guard<std::mutex> lock(mutex_);
      if (stop_at_) log_("scheduled stop cancelled");
      stop_at_.reset();
      wake_.notify_all();
      return kStatusOk;
    }
    case platform::kFilerMessageCommand:
      // Still read the record, so a malformed one is told apart.
      return parse_message_record(data) ? kStatusNotSupported : kStatusBadArgument;
    default:
      // "rfev" needs the descriptor that only a register request carries.
      return kStatusBadArgument;
  }
}

int32_t Controller::disconnect(const std::string& data, std::string* reply) {
  std::optional<DisconnectRecord> record = parse_disconnect_record(data);
  if (!record) return kStatusBadArgument;
  uint32_t ended = 0;
  if (!record->session_ids.empty()) {
    platform::SambaStatus status = samba_.status();
    if (!status.read) return kStatusToolFailed;
    std::set<uint32_t> wanted(record->session_ids.begin(), record->session_ids.end());
    std::set<uint32_t> processes;
    for (const platform::SambaSession& session : status.sessions)
      if (session.session_id != 0 && wanted.count(session.session_id) && session.pid != 0)
        processes.insert(session.pid);
    // Ids that are not listed are skipped quietly: the session may have
    // ended on its own since the caller looked.
    for (uint32_t pid : processes)
      if (samba_.end_process(pid)) ++ended;
    log_("disconnected " + std::to_string(ended) + " of " + std::to_string(wanted.size()) + " sessions");
  }
  *reply = make_word_record(ended);
  return kStatusOk;
}

int32_t Controller::shutdown(const std::string& data) {
  std::optional<ShutdownRecord> record = parse_shutdown_record(data);
  if (!record) return kStatusBadArgument;
  if (record->grace_minutes == 0) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stop_at_.reset();
    }
    log_("stopping the file server now");
    if (!samba_.stop()) return kStatusToolFailed;
    broadcast(platform::filer_code("stop"), 0);
    return kStatusOk;
  }
  uint32_t minutes = std::min(record->grace_minutes, kMaxGraceMinutes);
  std::lock_guard<std::mutex> lock(mutex_);
  stop_at_ = std::chrono::steady_clock::now() + std::chrono::minutes(minutes);
  log_("file server stops in " + std::to_string(minutes) + " minutes");
  wake_.notify_all();
  return kStatusOk;
}

int32_t Controller::register_listener(uint32_t code, const std::string& data, platform::UniqueFd fd) {
  std::optional<uint32_t> first = word_at(data, 0), second = word_at(data, 4);
  if (code != platform::kFilerEventsCode || !fd.valid() || !first || !second) return kStatusBadArgument;
  // A descriptor that cannot be written to would only be dropped later.
  int mode = ::fcntl(fd.get(), F_GETFL);
  if (mode < 0 || (mode & O_ACCMODE) == O_RDONLY) return kStatusBadArgument;
  ::fcntl(fd.get(), F_SETFD, FD_CLOEXEC);
  std::lock_guard<std::mutex> lock(mutex_);
  if (listeners_.size() >= kMaxListeners) return kStatusTooMany;
  Listener listener;
  listener.fd = std::move(fd);
  listener.words[0] = *first;
  listener.words[1] = *second;
  listeners_.push_back(std::move(listener));
  wake_.notify_all();
  return kStatusOk;
}

void Controller::broadcast(uint32_t event, uint32_t sessions) {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<Listener> kept;
  for (Listener& listener : listeners_) {
    std::string record = make_word_record(event) + make_word_record(listener.words[0]) +
                         make_word_record(listener.words[1]) + make_word_record(sessions);
    if (write_event(listener.fd.get(), record)) kept.push_back(std::move(listener));
  }
  listeners_ = std::move(kept);
}

std::optional<std::chrono::steady_clock::time_point> Controller::scheduled_stop() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return stop_at_;
}

size_t Controller::listener_count() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return listeners_.size();
}

void Controller::timer_loop() {
  std::unique_lock<std::mutex> lock(mutex_);
  auto next_watch = std::chrono::steady_clock::now();
  while (!quitting_) {
    auto now = std::chrono::steady_clock::now();
    if (stop_at_ && *stop_at_ <= now) {
      stop_at_.reset();
      lock.unlock();
      log_("grace period over: stopping the file server");
      if (samba_.stop()) broadcast(platform::filer_code("stop"), 0);
      lock.lock();
      continue;
    }
    if (!listeners_.empty() && next_watch <= now) {
      lock.unlock();
      platform::SambaStatus status = samba_.status();
      lock.lock();
      next_watch = std::chrono::steady_clock::now() + watch_interval_;
      if (status.read) {
        std::set<uint32_t> ids = session_ids(status);
        bool changed = last_sessions_ && *last_sessions_ != ids;
        last_sessions_ = ids;
        if (changed) {
          lock.unlock();
          broadcast(platform::filer_code("sesc"), uint32_t(ids.size()));
          lock.lock();
        }
      }
      continue;
    }
    if (listeners_.empty()) last_sessions_.reset();
    auto until = std::chrono::steady_clock::time_point::max();
    if (stop_at_) until = *stop_at_;
    if (!listeners_.empty()) until = std::min(until, next_watch);
    if (until == std::chrono::steady_clock::time_point::max()) {
      wake_.wait(lock);
    } else {
      wake_.wait_until(lock, until);
    }
  }
}

}  // namespace filerd
