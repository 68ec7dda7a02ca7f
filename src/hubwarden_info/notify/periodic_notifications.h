// The notification work of every idle call: a disk state event per volume
// for the event monitor, then the periodic update check, all through one
// event port that lives only for the call. Runs on the idle pass's thread.
#pragma once

#include <string>

#include "plist/value.h"

namespace hubwarden {

inline constexpr const char* kDiskStateEvent = "com.marlo.hubwarden_info.diskstate";

// The disk state event of one entry of get_volumeInfos(): "event_type",
// "volumeName", "freePercent" ("%2.2f" of the free share, 0 for a volume
// under one byte) and "freeBytes" as byte-amount text, all strings.
plist::Dict disk_state_event(const plist::Dict& volume);

// periodic_notifications_handler (declared in request/operations.h) posts
// disk_state_event of every volume, logging "hubwarden_info: unable to
// create event port." for each one the port cannot be opened for, runs
// periodic_swupdate_check with the same port, and closes the port. Returns
// nullptr always.

}  // namespace hubwarden
