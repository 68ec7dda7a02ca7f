// Reading the notification settings from the settings file.
#include "notify/notification_settings.h"

#include "settings/settings_file.h"

namespace hubwarden {

ErrorName read_notifications_settings(const Dict* request, ReplySlot& reply, Dict* context) {
  std::optional<Value> stored = read_key_from_settings_file("NotificationsSettings");
  // A damaged entry reads as no settings rather than as something the
  // console cannot display.
  Dict* settings = stored ? stored->as_dict() : nullptr;
  reply = Dict{{"notifications_settings", settings ? std::move(*settings) : Dict()}, {"readStatus", Value(0)}};
  return nullptr;
}

}  // namespace hubwarden
