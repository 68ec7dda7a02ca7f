// The event monitor's port: how the daemon hands events (a disk running
// low, an update available) to sentryd, which decides whether anyone is
// mailed. Events are fire-and-forget: the monitor owes no answer, and a
// monitor that is down or busy must never hold up the caller.
//
// On Linux the port is a Unix datagram socket, kEventMonitorSocket under
// the root, and each event is one datagram: an XML property list whose top
// level is a dictionary of strings holding "event_type" and the event's own
// keys. A datagram longer than kMaxEventBytes is never sent, and the
// monitor drops one it receives.
//
// Safe from any thread; one EventPort is used by one thread at a time.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "plist/value.h"

namespace platform {

// Where the monitor listens, as a path under the root.
inline constexpr const char* kEventMonitorSocket = "/run/hubwarden/sentryd.sock";
inline constexpr size_t kMaxEventBytes = 64 * 1024;

class EventPort {
 public:
  EventPort() = default;
  EventPort(const EventPort&) = delete;
  EventPort& operator=(const EventPort&) = delete;
  // Closes the port.
  virtual ~EventPort() = default;

  // Sends one event: event with "event_type" set to event_type. False when
  // it could not be handed over (monitor gone, its queue full, the event too
  // large); never waits for the monitor.
  virtual bool post(const std::string& event_type, const plist::Dict& event) = 0;
};

class EventMonitor {
 public:
  EventMonitor() = default;
  EventMonitor(const EventMonitor&) = delete;
  EventMonitor& operator=(const EventMonitor&) = delete;
  virtual ~EventMonitor() = default;

  // A port to the running monitor, or nullptr when it cannot be reached
  // (not running, its socket missing or refusing).
  virtual std::unique_ptr<EventPort> open_port() = 0;
};

}  // namespace platform
