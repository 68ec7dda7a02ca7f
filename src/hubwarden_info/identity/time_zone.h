// Setting the system time zone, and telling the rest of the system that the
// zone or the clock changed.
//
// The zone is the link "/etc/localtime" -> "/usr/share/zoneinfo/<zone>",
// both resolved below the root, so a sandbox root needs a zoneinfo folder
// of its own (a copy or a link made by whoever set the sandbox up). Safe
// from any thread; two concurrent set_time_zone calls may leave either
// zone in place.
#pragma once

#include <string>

namespace hubwarden {

// Result codes of set_time_zone.
inline constexpr int kLocaltimeNotRemoved = 100020;
inline constexpr int kNoZoneFile = 100021;
inline constexpr int kLocaltimeNotLinked = 100022;

inline constexpr char kLocaltimePath[] = "/etc/localtime";
inline constexpr char kZoneinfoPath[] = "/usr/share/zoneinfo/";

// Distributed notification names.
inline constexpr char kTimeZoneDidChangeNotification[] = "NSSystemTimeZoneDidChangeDistributedNotification";
inline constexpr char kClockNotification[] = "com.marlo.MenuBarClock.ClockNotification";

// Points /etc/localtime at zone's file ("Europe/Paris"). The old link is
// removed first and stays removed whatever happens next. Returns 0;
// kLocaltimeNotRemoved when the old link could not be removed (a missing
// one is fine); kNoZoneFile when zone names no zone file (also for names
// that would leave the zone folder); kLocaltimeNotLinked when the new link
// could not be made. Each failure is logged at notice level. When the
// system also keeps the zone's name in /etc/timezone, that copy follows.
int set_time_zone(const std::string& zone);

// Posts the zone-change and clock-change notifications, now, to every
// user session. Nothing to report when nobody listens.
void send_time_zone_notifications();

// Posts one distributed notification, when the host provides the service.
void post_distributed_notification(const std::string& name);

}  // namespace hubwarden
