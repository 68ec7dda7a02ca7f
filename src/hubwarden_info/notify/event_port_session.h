// The event port as one idle call uses it: opened on the first event,
// at most once per successful open, and closed when the session ends, so
// that the disk events and the update announcements of one call share a
// single port. Not thread-safe: one idle call owns it.
#pragma once

#include <memory>
#include <string>

#include "platform/event_port.h"
#include "plist/value.h"

namespace hubwarden {

class EventPortSession {
 public:
  EventPortSession() = default;
  EventPortSession(const EventPortSession&) = delete;
  EventPortSession& operator=(const EventPortSession&) = delete;
  ~EventPortSession() { close(); }

  // Posts event under event_type, opening the port first when it is not
  // open. When the port cannot be opened, logs
  // "hubwarden_info: unable to create event port." and returns false; the
  // next post tries to open it again. Also false when the post fails.
  bool post(const std::string& event_type, const plist::Dict& event);

  // Whether a port is open now.
  bool is_open() const { return port_ != nullptr; }
  // Closes the port if open; a later post opens a new one.
  void close() { port_.reset(); }

 private:
  std::unique_ptr<platform::EventPort> port_;
};

}  // namespace hubwarden
