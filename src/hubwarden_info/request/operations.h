// The module's operations as the dispatcher and the idle driver call them,
// and the types they share.
//
// Operation convention: an operation receives a reply slot (empty on entry)
// and the module context; it leaves its reply in the slot and returns an
// error name, or nullptr for success. A context pointer may be null where an
// operation runs without one.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/error_name.h"
#include "plist/value.h"

namespace hubwarden {

using plist::Array;
using plist::Dict;
using plist::Value;
using ReplySlot = std::optional<Dict>;

inline constexpr const char* kModuleName = "hubwarden_info";

// Error names.
inline constexpr ErrorName kCannotMallocErr = "CANNOT_MALLOC_ERR";
inline constexpr ErrorName kSettingNotFoundErr = "SETTING_NOT_FOUND_ERR";
inline constexpr ErrorName kNotEnoughPrivsErr = "NOT_ENOUGH_PRIVS_ERR";
inline constexpr ErrorName kCannotLaunchUpdateError = "CANNOT_LAUNCH_UPDATE_ERROR";
inline constexpr ErrorName kUnknownSortKeyErr = "UNKNOWN_SORT_KEY_ERR";
inline constexpr ErrorName kUnknownFieldsToReturnErr = "UNKNOWN_FIELDS_TO_RETURN_ERR";
inline constexpr ErrorName kMalformedSortDirectionErr = "MALFORMED_SORT_DIRECTION_ERR";
inline constexpr ErrorName kCommandNotServedErr = "COMMAND_NOT_SERVED_ERR";

// ---- Monitoring ----
ErrorName get_server_info(ReplySlot& reply, const Value* variant, bool tier_flag, Dict* context);
ErrorName get_hardware_info(ReplySlot& reply, const Value* variant, bool tier_flag, Dict* context);
ErrorName get_log_paths(std::optional<Dict>& paths);
ErrorName get_history_data(const Value* variant, const Value& time_scale, ReplySlot& reply, Dict* context);
ErrorName update_history_data(Dict* context);
ErrorName kill_processes(const Dict& request, ReplySlot& reply, Dict* context);
ErrorName list_processes(const Dict& request, ReplySlot& reply, Dict* context);

// ---- Software update ----
ErrorName get_swupdate_status(ReplySlot& reply, Dict* context);
ErrorName start_swupdate_scan(const Value* language, ReplySlot& reply, Dict* context);
ErrorName start_swupdate_install(const Dict& request, ReplySlot& reply, Dict* context);
ErrorName ignore_swupdate_identifiers(const Dict& request, ReplySlot& reply, Dict* context);
ErrorName reset_ignored_swupdate_identifiers(ReplySlot& reply, Dict* context);
ErrorName reboot_post_swupdate(const Dict& request, ReplySlot& reply, Dict* context);
void delete_swupdate_status_dict(Dict* context);
ErrorName periodic_swupdate_handler(Dict* context);

// ---- Settings ----
ErrorName read_settings(const Dict* request, ReplySlot& reply, Dict* context);
ErrorName write_settings(const Dict& request, ReplySlot& reply, Dict* context);

// ---- Access control and services ----
ErrorName read_service_config(const Dict* request, ReplySlot& reply, Dict* context);
ErrorName write_service_config(const Dict* request, ReplySlot& reply, Dict* context);
std::optional<Dict> build_services_dict(bool for_advertising, bool ask_clients_to_ignore, Dict* context);
ErrorName mark_running_services_configured(Dict* context, const Value* configuration);
// The services-ready flag and the services table come into being at pass zero.
void create_services_table();
// Service-discovery identifiers the user may use, or nullopt on failure.
std::optional<Array> sacls_for_user(const Value* user, Dict* context, bool use_authentication_search);
void register_services_with_zeroconf(bool ask_clients_to_ignore, Dict* context);
void register_server_waiting_for_setup_with_zeroconf(Dict* context);

// ---- Host identity and time ----
std::optional<double> get_boot_time();
void init_info_hostname();
// Compares the host name, the primary address's DNS name and the address
// with those of the last check (kept in the settings file) and records
// them; stops at once when any is missing (as the cached state calls it).
void check_host_name(const std::optional<std::string>& host_name, const std::optional<std::string>& dns_name,
                     const std::optional<std::string>& primary_ip);
bool has_missing_kerberized_services(Dict* context);

// ---- Notifications ----
ErrorName periodic_notifications_handler(Dict* context, int pass);
// Registers the shared watcher for the in-process "setState" notification.
void register_service_state_watcher();

}  // namespace hubwarden
