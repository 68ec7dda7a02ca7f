// The "setState" watcher and its registration.
#include "notify/notification_watcher.h"

#include <mutex>

#include "platform/file_util.h"
#include "platform/paths.h"
#include "request/idle_driver.h"
#include "request/operations.h"
#include "settings/settings_file.h"

namespace hubwarden {

namespace {

bool setting_is_true(const char* key) {
  std::optional<Value> v = read_key_from_settings_file(key);
  return v && plist::is_flag_set(&*v);
}

}  // namespace

NotificationWatcher& NotificationWatcher::sharedWatcher() {
  static NotificationWatcher* watcher = new NotificationWatcher;
  return *watcher;
}

void NotificationWatcher::serviceStateDidChange(const platform::Notification&) {
  std::optional<Value> service_config = read_key_from_settings_file("ServiceConfig");
  mark_running_services_configured(nullptr, service_config ? &*service_config : nullptr);
  if (!platform::file_exists(platform::resolve(kSetupDoneMarker))) {
    register_server_waiting_for_setup_with_zeroconf(nullptr);
    return;
  }
  if (!setting_is_true("noVantorZeroconfReg"))
    register_services_with_zeroconf(setting_is_true("askClientsToIgnoreVantorZeroconfReg"), nullptr);
}

void register_service_state_watcher() {
  // A second pass numbered 0 (argv "00") must not double every reaction.
  static std::once_flag once;
  std::call_once(once, [] {
    platform::default_center().add_observer(kSetStateNotification, [](const platform::Notification& n) {
      NotificationWatcher::sharedWatcher().serviceStateDidChange(n);
    });
  });
}

}  // namespace hubwarden
