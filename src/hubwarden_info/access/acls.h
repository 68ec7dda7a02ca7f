// Service access control lists: the three families of directory groups that
// decide who may use ("com.marlo.access_"), administer ("com.marlo.admin_")
// or watch ("com.marlo.monitor_") each service, their name lists, the
// reading and writing of their group records for the settings commands, and
// the question which services a user may use.
//
// The cached name lists are built once per process and are safe to read from
// several threads; everything else is owned by the call that made it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "plist/value.h"

namespace hubwarden {

inline constexpr std::string_view kAccessGroupPrefix = "com.marlo.access_";
inline constexpr std::string_view kAdminGroupPrefix = "com.marlo.admin_";
inline constexpr std::string_view kMonitorGroupPrefix = "com.marlo.monitor_";
inline constexpr std::string_view kAllServicesSuffix = "all_services";

// Builds prefix + each short name of the names file at path (already
// resolved under the root), in file order, then prefix + "all_services".
// A missing or unreadable file yields only the "all_services" name.
plist::Array get_acl_names(const std::string& path, std::string_view prefix);

// The three cached lists. Each is built on first use and never re-read.
const plist::Array& get_sacl_names();
const plist::Array& get_aacl_names();
const plist::Array& get_macl_names();

// Reads the group record of every name into *records (one ACL record with
// "_id_" per existing group). Returns the first non-zero directory status,
// but reads every name regardless.
int32_t read_acls(plist::Dict* context, const plist::Array& names, plist::Array* records);

// Creates, updates or removes the groups the ACL records describe, in order,
// stopping at the first non-zero directory status, which it returns.
int32_t write_acls(const plist::Array& records, plist::Dict* context);

// The service-discovery identifier of an access group, looked up by what
// follows the access prefix; nullopt for a suffix with no identifier.
// REQUIRES: name is at least as long as the access prefix (a shorter name
// also gives nullopt).
std::optional<std::string> service_name_from_sacl_group_name(std::string_view name);

// Test hook: forgets the cached name lists so that the next call rebuilds
// them under the currently installed root.
void reset_acl_name_caches_for_testing();

}  // namespace hubwarden
