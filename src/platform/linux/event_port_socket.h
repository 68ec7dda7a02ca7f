// The event port on Linux: a Unix datagram socket bound by sentryd at
// kEventMonitorSocket under the root, one XML property list per event.
//
// Ports never block: a monitor whose queue is full loses the event rather
// than stalling the idle pass that posts it. Under a sandbox root the socket
// is reached through its folder opened inside the root, so a link planted in
// the sandbox cannot carry events to a monitor outside it, and the length
// of the sandbox's own path does not count against the socket address limit.
// Safe from any thread; each port is used by one thread at a time.
#pragma once

#include <memory>
#include <string>

#include "platform/event_port.h"

namespace platform {

// open_port() resolves kEventMonitorSocket under the installed root each
// time and connects to it; nullptr when nothing listens there, the entry is
// not a socket, or the address does not fit a Unix socket address.
std::unique_ptr<EventMonitor> make_socket_event_monitor();

// The datagram an event becomes: "event_type" first, then event's own keys
// in their order (an "event_type" among them is left out), as an XML
// property list. Shared with the monitor's tests and benchmarks.
std::string encode_event(const std::string& event_type, const plist::Dict& event);

}  // namespace platform
