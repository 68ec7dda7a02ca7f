// Opening the event port lazily for one idle call.
#include "notify/event_port_session.h"

#include "platform/log.h"
#include "platform/registry.h"

namespace hubwarden {

bool EventPortSession::post(const std::string& event_type, const plist::Dict& event) {
  if (!port_) {
    if (auto* monitor = platform::find<platform::EventMonitor>()) port_ = monitor->open_port();
    if (!port_) {
      platform::log_error("hubwarden_info: unable to create event port.");
      return false;
    }
  }
  return port_->post(event_type, event);
}

}  // namespace hubwarden
