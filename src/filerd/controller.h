// What the daemon answers to each control request, and the state shared by
// every connection: the scheduled stop and its timer, and the event
// listeners.
//
// Requests whose fields do not fit their id never reach here (the codec
// refuses them); every request that does gets its reply. Attribute, command
// and iterator codes that are not known are answered kStatusBadArgument.
//
// Events: a listener registered with "rfev" (a descriptor passed with the
// register request, and two words) is sent a 16-byte record, four 32-bit
// words in host byte order, whenever the set of sessions changes (checked
// every few seconds while anyone listens) or the server stops:
//   word 0  "sesc" (sessions changed) or "stop" (the server stopped)
//   word 1, word 2  the two words given at registration
//   word 3  the number of sessions now (0 for "stop")
// Writes never block; a listener whose write fails is dropped. At most
// kMaxListeners are kept.
//
// Thread-safe: handle() may be called from several connections at once.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <set>
#include <thread>
#include <vector>

#include "filerd/config.h"
#include "filerd/iterators.h"
#include "filerd/samba.h"
#include "platform/filer_wire.h"

namespace filerd {

class Controller {
 public:
  static constexpr size_t kMaxListeners = 64;
  // The longest grace period honoured; longer ones are cut to this.
  static constexpr uint32_t kMaxGraceMinutes = 30 * 24 * 60;

  // samba must outlive the controller. watch_interval is how often the
  // sessions are compared while listeners exist.
  Controller(Samba& samba, LogFn log, std::chrono::milliseconds watch_interval = std::chrono::seconds(5));
  ~Controller();  // cancels a scheduled stop without running it
  Controller(const Controller&) = delete;
  Controller& operator=(const Controller&) = delete;

  // The reply to request, using the connection's iterators. A descriptor
  // passed with a register request is taken from it.
  platform::FilerMessage handle(platform::FilerMessage& request, IteratorTable& iterators);

  // Whether a stop is scheduled, and when.
  std::optional<std::chrono::steady_clock::time_point> scheduled_stop() const;
  size_t listener_count() const;

 private:
  struct Listener {
    platform::UniqueFd fd;
    uint32_t words[2] = {0, 0};
  };

  int32_t command(uint32_t code, const std::string& data, std::string* reply);
  int32_t disconnect(const std::string& data, std::string* reply);
  int32_t shutdown(const std::string& data);
  int32_t register_listener(uint32_t code, const std::string& data, platform::UniqueFd fd);
  std::string state_record();
  void broadcast(uint32_t event, uint32_t sessions);
  void timer_loop();

  Samba& samba_;
  LogFn log_;
  const std::chrono::milliseconds watch_interval_;

  mutable std::mutex mutex_;
  std::condition_variable wake_;
  bool quitting_ = false;
  std::optional<std::chrono::steady_clock::time_point> stop_at_;
  std::vector<Listener> listeners_;
  std::optional<std::set<uint32_t>> last_sessions_;
  std::thread timer_;
};

}  // namespace filerd
