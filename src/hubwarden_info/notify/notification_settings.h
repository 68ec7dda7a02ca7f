// The administrator's e-mail notification settings, kept under
// "NotificationsSettings" in the settings file and exchanged with the
// console as "notifications_settings", and their translation into the
// event monitor's rule files.
//
// Both run on the caller's thread under the module context; the settings
// file has its own lock.
#pragma once

#include "request/operations.h"

namespace hubwarden {

// Reply {"notifications_settings": the stored dictionary (empty when there is
// none), "readStatus": 0}. Never fails; request and context are not used.
ErrorName read_notifications_settings(const Dict* request, ReplySlot& reply, Dict* context);

// Stores the request's "notifications_settings" dictionary whole (when it
// is one), rewrites the disk, software update and certificate rule files
// from the stored settings, and signals the running event monitor (the
// program "sentryd", nothing else) to end so that its service manager
// starts it on the new rules. Reply {"notifications_settings": the stored
// dictionary, "writeStatus": 0}. Never fails: a rule file that is missing
// or unusable is skipped, and failed writes and signals go unreported.
ErrorName write_notifications_settings(const Dict* request, ReplySlot& reply, Dict* context);

}  // namespace hubwarden
