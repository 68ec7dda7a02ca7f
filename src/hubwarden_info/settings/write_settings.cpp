// "writeSettings": applies the console's changed server-wide settings
// through the subsystem that owns each of them, in a fixed order, and
// answers with the settings as they read afterwards.
#include <cstdint>
#include <optional>
#include <string>

#include "access/acls.h"
#include "identity/city_record.h"
#include "identity/names.h"
#include "identity/ntp_conf.h"
#include "identity/time_settings.h"
#include "identity/time_zone.h"
#include "notify/notification_settings.h"
#include "platform/registry.h"
#include "platform/service_manager.h"
#include "request/cached_state.h"
#include "request/globals.h"
#include "request/operations.h"
#include "settings/settings_file.h"
#include "switches/switch_state.h"

namespace hubwarden {

namespace {

constexpr const char* kSnmpJob = "org.net-snmp.snmpd";
// The clock is only stepped for differences a person would notice; the
// console's own clock and the round trip account for a few seconds.
constexpr uint64_t kClockTolerance = 5;

// The status of the writes: the first failure in the order of application.
class WriteStatus {
 public:
  void note(int64_t status) {
    if (value_ == 0) value_ = status;
  }
  int64_t value() const { return value_; }

 private:
  int64_t value_ = 0;
};

const std::string* cached_string(const Dict& info, const char* key) { return info.find_string(key); }

bool differs_from_cached(const std::string& value, const Dict& info, const char* key) {
  const std::string* cached = cached_string(info, key);
  return cached == nullptr || *cached != value;
}

bool setting_is_true(const char* key) {
  std::optional<Value> value = read_key_from_settings_file(key);
  return plist::is_flag_set(value ? &*value : nullptr);
}

int set_snmp_state(bool enabled) {
  if (!platform::has<platform::ServiceManager>()) return 1;
  return platform::get<platform::ServiceManager>().set_job_enabled(kSnmpJob, enabled) != 0 ? 1 : 0;
}

uint64_t distance(uint64_t a, uint64_t b) { return a > b ? a - b : b - a; }

// The time service keys, then the clock: while time comes from the network
// (before or after this request) the clock is not set by hand.
void apply_time_settings(const Dict& configuration, bool sync, Dict* context, WriteStatus* status) {
  const Value* serve_value = configuration.find_number("ntpTimeServe");
  const std::string* server_value = configuration.find_string("ntpServerName");
  const Value* sync_value = configuration.find_number("ntpTimeSync");

  if (serve_value != nullptr || server_value != nullptr || sync_value != nullptr) {
    bool serve = get_ntp_server_state();
    std::optional<std::string> server = get_ntp_server_name();
    bool changed = false;
    if (serve_value != nullptr) serve = serve_value->number_is_true();
    if (server_value != nullptr && server != *server_value) {
      // Recorded as "previousNTPServerNameStore", which readSettings does
      // not report (it reports "previousNTPServerName"): consoles in the
      // field rely on both keys exactly as they are.
      if (context != nullptr) {
        context->set("previousNTPServerNameStore", *server_value);
        context->set("contextDirty", Value(true));
      }
      server = *server_value;
      changed = true;
    }
    if (sync_value != nullptr && sync_value->number_is_true() != sync) {
      sync = sync_value->number_is_true();
      changed = true;
    }
    status->note(set_ntp_state(sync, serve, server));
    if (server && changed && sync) {
      status->note(sync_with_ntp_server(*server));
      return;
    }
  }
  if (sync) return;  // network time owns the clock

  if (const Value* requested = configuration.find_number("currentTime")) {
    std::optional<uint64_t> wanted = requested->to_uint64();
    std::optional<uint64_t> now = get_time().to_uint64();
    if (wanted && now && distance(*wanted, *now) > kClockTolerance) status->note(set_time(*wanted));
  }
}

}  // namespace

ErrorName write_settings(const Dict& request, ReplySlot& reply, Dict* context) {
  const Dict* cached = context != nullptr ? context->find_dict("info") : nullptr;
  const Dict info = cached != nullptr ? *cached : Dict();
  const bool sync = get_ntp_sync_state();
  WriteStatus status;

  const Dict* configuration = request.find_dict("configuration");
  if (configuration == nullptr) {
    update_cached_state(context);
  } else {
    const Dict& config = *configuration;
    if (const std::string* name = config.find_string("computerName");
        name != nullptr && differs_from_cached(*name, info, "computerName")) {
      status.note(set_computer_name(*name));
    }
    if (const std::string* name = config.find_string("localcastName");
        name != nullptr && differs_from_cached(*name, info, "localcastName")) {
      status.note(set_localcast_name(*name));
    }
    if (const Value* snmp = config.find_number("enableSNMP")) status.note(set_snmp_state(snmp->number_is_true()));
    if (const Value* ssh = config.find_number("enableSSH")) status.note(set_ssh_state(ssh->number_is_true()));
    if (const Value* screenlink = config.find_number("enableScreenlink"))
      status.note(set_screenlink_state(screenlink->number_is_true()));
    if (const Value* filesync = config.find_number("enableFileSyncAgent"))
      status.note(set_filesyncd_state(filesync->number_is_true()));
    if (const Value* discovery = config.find_number("enableClientDiscovery")) {
      bool ask_to_ignore = !discovery->number_is_true();
      overwrite_key_in_settings_file(Value(ask_to_ignore), "askClientsToIgnoreVantorZeroconfReg");
      if (!setting_is_true("noVantorZeroconfReg")) register_services_with_zeroconf(ask_to_ignore, context);
    }

    apply_time_settings(config, sync, context, &status);

    bool time_zone_changed = false;
    if (const Value* city = config.find_number("cityRecord"); city != nullptr && !(*city == get_city_record())) {
      int city_status = set_city_record(city);
      status.note(city_status);
      if (city_status == 0) {
        send_time_zone_notifications();
        time_zone_changed = true;
      }
    }

    for (const char* key : {"accessControlLists", "adminControlLists", "monitorControlLists"}) {
      if (const Array* lists = config.find_array(key)) status.note(write_acls(*lists, context));
    }

    if (const Dict* service_config = config.find_dict("serviceConfig")) {
      Dict service_request{{"configuration", *service_config}};
      ReplySlot ignored;
      write_service_config(&service_request, ignored, context);
    }
    if (const Dict* notifications = config.find_dict("notifications")) {
      Dict notifications_request{{"notifications_settings", *notifications}};
      ReplySlot ignored;
      write_notifications_settings(&notifications_request, ignored, context);
    }

    update_cached_state(context);
    if (time_zone_changed && context != nullptr) {
      // The platform may not show the new zone yet; the console's word for
      // it is the better answer until the next rebuild.
      if (const Dict* fresh = context->find_dict("info")) {
        Dict copy = *fresh;
        if (const std::string* zone = config.find_string("timeZone")) copy.set("timeZone", *zone);
        context->set("info", std::move(copy));
      }
    }
  }

  if (gRunningUnderHubwardend.load()) {
    std::optional<Value> stored = read_key_from_settings_file("ServiceConfig");
    mark_running_services_configured(context, stored ? &*stored : nullptr);
  }

  ErrorName error = nullptr;
  const Value* details = request.find("getDetails");
  if (details != nullptr && details->is_number() && !details->number_is_true()) {
    reply = Dict();
  } else {
    error = read_settings(&request, reply, context);
  }
  if (reply) reply->set("writeStatus", Value(static_cast<uint64_t>(static_cast<uint32_t>(status.value()))));
  return error;
}

}  // namespace hubwarden
