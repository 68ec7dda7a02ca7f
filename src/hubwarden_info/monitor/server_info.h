// The "getState" status report: the cached server state with the current
// load, the service configuration and, when the variant asks for them,
// averages of past CPU usage, the volume list and the connected-user count.
// get_server_info itself is declared in request/operations.h.
#pragma once

#include "plist/value.h"

namespace hubwarden {

// What a "withDetails+" variant asks for.
struct StatusDetails {
  plist::Array cpu_average_minutes;  // "CPU Avg Times", elements as sent
  bool disk_usage = false;           // "GetDiskUsage"
  bool connected_users = false;      // "GetNumConnectedUsers"
};

// Reads "withDetails+" followed by a dictionary in XML or the older text
// form. Any other variant, or text that is not a dictionary, asks for
// nothing.
StatusDetails parse_status_variant(const plist::Value* variant);

}  // namespace hubwarden
