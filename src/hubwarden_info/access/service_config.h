// The per-service "configured" record kept under "ServiceConfig" in the
// settings file, the running-state questions put to the daemon's service
// modules, and the services dictionary that consoles read and the advertiser
// publishes.
//
// read_service_config, write_service_config, mark_running_services_configured
// and build_services_dict are declared with the other operations in
// request/operations.h. Everything here is safe to call before the first idle
// pass: without the services table nothing counts as running and the
// services dictionary does not exist yet.
#pragma once

#include <optional>

#include "plist/value.h"

namespace hubwarden {

// The names of the daemon's loaded modules, or nullopt until the services
// table exists (or when there is no module manager).
std::optional<plist::Array> available_services();

// Client identifiers of the services whose module reports "RUNNING",
// "RUNNING_WITH_ISSUE", "STARTING" or "ON". Modules that do not answer count
// as not running.
plist::Array get_running_services_client_ids(plist::Dict* context);

// {"parentDirServers": [{"name", "type"}, ...]} for the LDAP ("ldap") and
// Active Directory ("ad") servers the directory client uses, leaving out the
// server's own "127.0.0.1".
plist::Dict build_ds_info(plist::Dict* context);

// Names of the share points marked as backup targets, in the order the
// sharing module lists them; empty when it does not answer.
plist::Array build_backvault_info(plist::Dict* context);

}  // namespace hubwarden
