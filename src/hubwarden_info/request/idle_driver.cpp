// The idle driver: the periodic work of one idle pass, the one-time set-up
// of the first pass and of pass zero, and the pass's result code.
#include <climits>
#include <cstdlib>
#include <cstring>

#include "access/services_table.h"
#include "platform/file_util.h"
#include "platform/paths.h"
#include "request/cached_state.h"
#include "request/globals.h"
#include "request/idle_driver.h"
#include "request/module.h"
#include "request/operations.h"
#include "settings/settings_file.h"

namespace hubwarden {

namespace {

bool setting_is_true(const char* key) {
  std::optional<Value> v = read_key_from_settings_file(key);
  return v && plist::is_flag_set(&*v);
}

void clear_transient_state(Dict* context) {
  if (!context) return;
  for (const char* key : {"cpuUsageStore", "networkThroughputStore", "restartRequired", "swupdateActive",
                          "swupdateScanRequested", "swupdatesArray"})
    context->remove(key);
}

void advertise(Dict* context) {
  if (platform::file_exists(platform::resolve(kSetupDoneMarker))) {
    bool ask_clients_to_ignore = setting_is_true("askClientsToIgnoreVantorZeroconfReg");
    if (!setting_is_true("noVantorZeroconfReg")) register_services_with_zeroconf(ask_clients_to_ignore, context);
  } else {
    register_server_waiting_for_setup_with_zeroconf(context);
  }
}

bool any_service_configured(const std::optional<Value>& service_config) {
  if (!service_config) return false;
  const Dict* config = service_config->as_dict();
  const Dict* services = config ? config->find_dict("services") : nullptr;
  if (!services) return false;
  for (const auto& [name, entry] : *services) {
    const Dict* e = entry.as_dict();
    const Value* configured = e ? e->find("configured") : nullptr;
    if (configured && configured->number_is_true()) return true;
  }
  return false;
}

// The pass number as atoi reads it (text that is no number counts as 0),
// but saturated instead of undefined on overflow.
int pass_number(const char* text) {
  long n = std::strtol(text, nullptr, 10);
  if (n > INT_MAX) return INT_MAX;
  if (n < INT_MIN) return INT_MIN;
  return static_cast<int>(n);
}

}  // namespace

int idle_result_code(ErrorName error) {
  if (!error) return 0;
  if (same_error(error, kCannotMallocErr)) return 12;
  if (same_error(error, kSettingNotFoundErr) || same_error(error, kCannotLaunchUpdateError)) return 2;
  return 13;
}

int doProcessArgs(int argc, const char* const argv[], Dict* context, int lock_file_fd) {
  (void)lock_file_fd;
  if (argc < 2 || std::strcmp(argv[1], "idle") != 0) return 0;
  // The daemon always passes the pass number; a vector without one is
  // treated as no work rather than read past its end.
  if (argc < 3 || !argv[2]) return 0;
  const char* pass_text = argv[2];
  bool first_pass = std::strcmp(pass_text, "0") == 0;

  if (first_pass) {
    std::optional<double> boot_time = get_boot_time();
    clear_transient_state(context);
    delete_swupdate_status_dict(context);
    if (context) {
      if (boot_time)
        context->set("bootTime", *boot_time);
      else
        context->remove("bootTime");
      context->set("contextDirty", true);
    }
    init_info_hostname();
  }

  ErrorName error = update_history_data(context);

  int pass = pass_number(pass_text);
  if (pass == 0) gRunningUnderHubwardend = true;

  if (first_pass) {
    ErrorName cached = update_cached_state(context);
    if (!error) error = cached;
  }

  if (pass == 0) {
    create_services_table();
    create_auth_string();
    create_settings_lock();
    register_service_state_watcher();
  }

  advertise(context);

  if (pass < 2) {
    std::optional<Value> service_config = read_key_from_settings_file("ServiceConfig");
    if (!any_service_configured(service_config))
      mark_running_services_configured(context, service_config ? &*service_config : nullptr);
  }

  ErrorName notifications = periodic_notifications_handler(context, pass);
  ErrorName swupdate = periodic_swupdate_handler(context);
  if (!error) error = notifications;
  if (!error) error = swupdate;
  return idle_result_code(error);
}

void reset_module_globals_for_testing() {
  gRunningUnderHubwardend = false;
  reset_auth_string_for_testing();
  reset_settings_lock_for_testing();
  reset_services_table_for_testing();
}

}  // namespace hubwarden
