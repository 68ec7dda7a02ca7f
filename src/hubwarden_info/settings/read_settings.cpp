// "readSettings": every server-wide setting the console's general settings
// pages show, gathered in one reply from the subsystems that own them.
#include <cstdint>
#include <string>

#include "access/acls.h"
#include "access/service_config.h"
#include "identity/city_record.h"
#include "identity/time_settings.h"
#include "notify/notification_settings.h"
#include "platform/registry.h"
#include "platform/service_manager.h"
#include "request/operations.h"
#include "settings/settings_file.h"
#include "switches/switch_state.h"

namespace hubwarden {

namespace {

constexpr const char* kSnmpJob = "org.net-snmp.snmpd";

// A value of the cached state or the context, "" when it is missing.
Value value_or_empty(const Dict* dict, const char* key) {
  const Value* v = dict != nullptr ? dict->find(key) : nullptr;
  return v != nullptr ? *v : Value("");
}

bool snmp_enabled() {
  return platform::has<platform::ServiceManager>() && platform::get<platform::ServiceManager>().job_enabled(kSnmpJob);
}

struct AccessLists {
  Array records;
  Array names;
};

}  // namespace

ErrorName read_settings(const Dict* request, ReplySlot& reply, Dict* context) {
  const Dict* info = context != nullptr ? context->find_dict("info") : nullptr;
  Value localcast_name = value_or_empty(info, "localcastName");
  Value computer_name = value_or_empty(info, "computerName");

  Value current_time = get_time();

  bool snmp = snmp_enabled();
  bool ssh = get_ssh_state();
  bool screenlink = get_screenlink_state();
  bool file_sync = get_filesyncd_state();
  bool ntp_serve = get_ntp_server_state();
  bool ntp_sync = get_ntp_sync_state();

  std::optional<std::string> ntp_server = get_ntp_server_name();
  Value previous_ntp_server = value_or_empty(context, "previousNTPServerName");
  Value city_record = get_city_record();
  std::string time_zone = get_time_zone_name();

  std::optional<Value> ask_to_ignore = read_key_from_settings_file("askClientsToIgnoreVantorZeroconfReg");
  bool client_discovery = !plist::is_flag_set(ask_to_ignore ? &*ask_to_ignore : nullptr);

  // Every list is read even after a failure, so the console sees as much as
  // can be had; the status names the first failure.
  AccessLists service, admin, monitor;
  int32_t status = 0;
  for (auto [lists, names] : {std::pair{&service, &get_sacl_names()}, std::pair{&admin, &get_aacl_names()},
                              std::pair{&monitor, &get_macl_names()}}) {
    lists->names = *names;
    int32_t list_status = read_acls(context, *names, &lists->records);
    if (status == 0) status = list_status;
  }

  ReplySlot service_config;
  read_service_config(nullptr, service_config, context);
  const Value* configuration = service_config ? service_config->find("configuration") : nullptr;

  ReplySlot notifications;
  read_notifications_settings(nullptr, notifications, context);
  const Dict* notification_settings = notifications ? notifications->find_dict("notifications_settings") : nullptr;

  std::optional<Array> services = available_services();

  // Built as a list that ends at the first missing value: without a service
  // configuration the console gets neither it nor the services after it.
  Dict settings = plist::KeyValueList()
                      .add("localcastName", std::move(localcast_name))
                      .add("computerName", std::move(computer_name))
                      .add("enableSNMP", Value(snmp))
                      .add("enableSSH", Value(ssh))
                      .add("enableScreenlink", Value(screenlink))
                      .add("enableFileSyncAgent", Value(file_sync))
                      .add("enableClientDiscovery", Value(client_discovery))
                      .add("ntpTimeServe", Value(ntp_serve))
                      .add("ntpTimeSync", Value(ntp_sync))
                      .add("ntpServerName", Value(ntp_server.value_or("")))
                      .add("previousNTPServerName", std::move(previous_ntp_server))
                      .add("cityRecord", std::move(city_record))
                      .add("timeZone", Value(std::move(time_zone)))
                      .add("notificationRules", Value(Array()))
                      .add("launchableScripts", Value(Array()))
                      .add("accessControlLists", Value(std::move(service.records)))
                      .add("accessControlListNames", Value(std::move(service.names)))
                      .add("notifications", Value(notification_settings ? *notification_settings : Dict()))
                      .add("adminControlLists", Value(std::move(admin.records)))
                      .add("adminControlListNames", Value(std::move(admin.names)))
                      .add("monitorControlLists", Value(std::move(monitor.records)))
                      .add("monitorControlListNames", Value(std::move(monitor.names)))
                      .add("volumeList", Value(Array()))
                      .add("currentTime", std::move(current_time))
                      .add("serviceConfig", configuration)
                      .add("availableServices", Value(services ? std::move(*services) : Array()))
                      .take();

  // Statuses are 32-bit and travel to the console unsigned.
  reply = Dict{{"configuration", std::move(settings)},
               {"readStatus", Value(static_cast<uint64_t>(static_cast<uint32_t>(status)))}};
  return nullptr;
}

}  // namespace hubwarden
