// Distributed notifications on Linux: a D-Bus signal on the system bus,
// which any program or user session may subscribe to.
//
//   object path  /org/hubwarden/Notifications
//   interface    org.hubwarden.Notifications
//   member       Posted
//   argument     s  the notification's name
//                   ("NSSystemTimeZoneDidChangeDistributedNotification", ...)
//
// e.g. dbus-monitor --system "type='signal',interface='org.hubwarden.Notifications'"
//
// The bus is the one of the platform root (system_bus.h): under a sandbox
// root only a bus the sandbox runs. When no bus runs, or the signal cannot
// be sent, the notification is logged at notice level and dropped. Safe
// from any thread.
#pragma once

#include <memory>

#include "platform/notifications.h"

namespace platform {

inline constexpr char kNotificationsObjectPath[] = "/org/hubwarden/Notifications";
inline constexpr char kNotificationsInterface[] = "org.hubwarden.Notifications";
inline constexpr char kNotificationsMember[] = "Posted";

// Connects for each post (posts are rare: a zone or clock change), so a
// bus that restarts in between costs nothing.
std::unique_ptr<DistributedNotifications> make_dbus_notifications();

}  // namespace platform
