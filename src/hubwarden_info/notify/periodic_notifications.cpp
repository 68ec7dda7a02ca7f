// Disk state events and the periodic update check of each idle call.
#include "notify/periodic_notifications.h"

#include <stdio.h>

#include "monitor/meters.h"
#include "notify/event_port_session.h"
#include "platform/byte_amount.h"
#include "request/operations.h"
#include "swupdate/periodic_check.h"

namespace hubwarden {
namespace {

double number_at(const plist::Dict& d, const char* key) {
  const plist::Value* v = d.find_number(key);
  return v ? *v->to_double() : 0.0;
}

}  // namespace

plist::Dict disk_state_event(const plist::Dict& volume) {
  double free_bytes = number_at(volume, "freeBytes");
  double total_bytes = number_at(volume, "totalBytes");
  double free_percent = total_bytes < 1.0 ? 0.0 : 100.0 * free_bytes / total_bytes;
  char percent[64];
  snprintf(percent, sizeof(percent), "%2.2f", free_percent);
  const std::string* name = volume.find_string("name");
  return plist::Dict{{"event_type", kDiskStateEvent},
                     {"volumeName", name ? *name : std::string()},
                     {"freePercent", percent},
                     {"freeBytes", platform::byteAmountString(free_bytes)}};
}

ErrorName periodic_notifications_handler(Dict* context, int tick) {
  EventPortSession port;
  for (const Value& entry : get_volumeInfos()) {
    const Dict* volume = entry.as_dict();
    if (!volume) continue;
    port.post(kDiskStateEvent, disk_state_event(*volume));
  }
  periodic_swupdate_check(context, tick, port);
  return nullptr;
}

}  // namespace hubwarden
