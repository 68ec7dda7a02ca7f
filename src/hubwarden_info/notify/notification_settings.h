// The administrator's e-mail notification settings, kept under
// "NotificationsSettings" in the settings file and exchanged with the
// console as "notifications_settings".
#pragma once

#include "request/operations.h"

namespace hubwarden {

// Reply {"notifications_settings": the stored dictionary (empty when there is
// none), "readStatus": 0}. Never fails; request and context are not used.
ErrorName read_notifications_settings(const Dict* request, ReplySlot& reply, Dict* context);

}  // namespace hubwarden
