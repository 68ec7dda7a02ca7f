// Distributed notifications as D-Bus signals on the system bus.
#include "platform/linux/dbus_notifications.h"

#include <string.h>

#include "platform/linux/system_bus.h"
#include "platform/log.h"

namespace platform {

namespace {

class DbusNotifications : public DistributedNotifications {
 public:
  void post(const std::string& name) override {
    SdBusPtr bus = open_system_bus();
    if (!bus) {
      log_notice("hubwardend: no system bus; notification \"" + name + "\" not sent");
      return;
    }
    int r = ::sd_bus_emit_signal(bus.get(), kNotificationsObjectPath, kNotificationsInterface, kNotificationsMember,
                                 "s", name.c_str());
    // Sent now, before the connection closes, so that listeners hear of
    // the change while it is news.
    if (r >= 0) r = ::sd_bus_flush(bus.get());
    if (r < 0) log_notice("hubwardend: notification \"" + name + "\" not sent: " + ::strerror(-r));
  }
};

}  // namespace

std::unique_ptr<DistributedNotifications> make_dbus_notifications() { return std::make_unique<DbusNotifications>(); }

}  // namespace platform
