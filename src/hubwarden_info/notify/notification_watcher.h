// The service-state watcher: keeps the DNS-SD advertising in step with the
// services whenever the daemon posts "setState" on the in-process
// notification centre (a service module changed a service's state). It has
// no state; one shared instance lives for the whole process.
//
// Thread-safety: the handler runs on whichever thread posts "setState",
// without the module context, reading only the settings file.
#pragma once

#include "platform/notifications.h"

namespace hubwarden {

inline constexpr const char* kSetStateNotification = "setState";

class NotificationWatcher {
 public:
  // The one instance, made on first use and never destroyed.
  static NotificationWatcher& sharedWatcher();

  // Marks running services configured, then advertises: the
  // waiting-for-setup record before setup is done, else the configured
  // record unless the settings forbid it. The notification is not read.
  void serviceStateDidChange(const platform::Notification& notification);

  NotificationWatcher(const NotificationWatcher&) = delete;
  NotificationWatcher& operator=(const NotificationWatcher&) = delete;

 private:
  NotificationWatcher() = default;
};

}  // namespace hubwarden
