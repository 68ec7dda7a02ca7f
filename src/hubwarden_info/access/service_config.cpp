// Service configuration ("ServiceConfig" in the settings file), the running
// services of the daemon's service modules, and the services dictionary.
#include "access/service_config.h"

#include <string>
#include <string_view>

#include "access/services_table.h"
#include "platform/directory.h"
#include "platform/file_util.h"
#include "platform/host_services.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "platform/registry.h"
#include "request/globals.h"
#include "request/idle_driver.h"
#include "request/operations.h"
#include "settings/settings_file.h"

namespace hubwarden {

namespace {

constexpr std::string_view kClientIdPrefix = "com.marlo.Overseer.";
constexpr const char* kServiceConfigKey = "ServiceConfig";
constexpr const char* kUpgradeCheckedKey = "serviceConfigForUpgradeChecked";

// Module requests run for the requesting user; work that has no request
// behind it (an idle pass without context) runs as the superuser.
std::string module_user(Dict* context) {
  if (context == nullptr) return "root";
  return platform::do_get_user(context, 0, 0);
}

// The "state" a module reports for getState; empty when it gives none.
std::string module_state(const std::string& module, const std::string& user) {
  if (!platform::has<platform::ModuleManager>()) return "";
  std::optional<Dict> reply =
      platform::get<platform::ModuleManager>().do_command(Dict{{"command", "getState"}}, module, user);
  if (!reply) return "";
  const std::string* state = reply->find_string("state");
  return state ? *state : "";
}

bool any_service_configured(const Dict& config) {
  const Dict* services = config.find_dict("services");
  if (services == nullptr) return false;
  for (const auto& [id, entry] : *services) {
    const Dict* e = entry.as_dict();
    if (e != nullptr && plist::is_flag_set(e->find("configured"))) return true;
  }
  return false;
}

// The stored configuration; a value that is not a dictionary reads as none,
// so a damaged entry never reaches the console or the marking below.
std::optional<Dict> stored_service_config() {
  std::optional<Value> value = read_key_from_settings_file(kServiceConfigKey);
  if (!value) return std::nullopt;
  Dict* dict = value->as_dict();
  if (dict == nullptr) return std::nullopt;
  return std::move(*dict);
}

}  // namespace

std::optional<Array> available_services() {
  if (!services_ready() || !platform::has<platform::ModuleManager>()) return std::nullopt;
  Array names;
  for (std::string& name : platform::get<platform::ModuleManager>().module_names()) names.emplace_back(std::move(name));
  return names;
}

Array get_running_services_client_ids(Dict* context) {
  Array ids;
  const ServicesTable* table = gServerToClientMapping();
  if (table == nullptr) return ids;
  const std::string user = module_user(context);
  for (const auto& [module, client_id] : *table) {
    if (module == kModuleName) continue;
    const std::string state = module_state(module, user);
    if (state == "RUNNING" || state == "RUNNING_WITH_ISSUE" || state == "STARTING" || state == "ON") {
      ids.emplace_back(client_id);
    }
  }
  return ids;
}

ErrorName write_service_config(const Dict* request, ReplySlot& reply, Dict* context) {
  const Dict* changes = request != nullptr ? request->find_dict("configuration") : nullptr;
  if (changes != nullptr) {
    update_key_in_settings_file(*changes, kServiceConfigKey);
    overwrite_key_in_settings_file(Value(true), kUpgradeCheckedKey);
  }
  std::optional<Value> stored = read_key_from_settings_file(kServiceConfigKey);
  reply = plist::KeyValueList()
              .add("configuration", std::move(stored))
              .add("writeStatus", Value(0))
              .take();
  return nullptr;
}

ErrorName read_service_config(const Dict* request, ReplySlot& reply, Dict* context) {
  std::optional<Dict> config = stored_service_config();
  std::optional<Value> checked = read_key_from_settings_file(kUpgradeCheckedKey);

  // Servers set up before the configuration was kept here have services
  // running that nobody marked: mark them once, after setup is done. Any
  // service already marked by hand means the console owns the record.
  if (!plist::is_flag_set(checked ? &*checked : nullptr) &&
      platform::file_exists(platform::resolve(kSetupDoneMarker)) && !(config && any_service_configured(*config)) &&
      services_ready()) {
    if (config) {
      Value current(*config);
      mark_running_services_configured(context, &current);
    } else {
      mark_running_services_configured(context, nullptr);
    }
    config = stored_service_config();
  }

  reply = Dict{{"configuration", config ? std::move(*config) : Dict()}, {"readStatus", Value(0)}};
  return nullptr;
}

ErrorName mark_running_services_configured(Dict* context, const Value* configuration) {
  const Dict* given = configuration != nullptr ? configuration->as_dict() : nullptr;
  Array running = get_running_services_client_ids(context);

  Dict copy = given != nullptr ? *given : Dict();
  const Dict* old_services = copy.find_dict("services");
  Dict services = old_services != nullptr ? *old_services : Dict();
  std::string joined;
  for (const Value& id : running) {
    const std::string& text = *id.as_string();
    // A running service's entry is replaced whole: whatever else the console
    // kept beside "configured" describes a setup the service has outgrown.
    services.set(text, Dict{{"configured", Value(true)}});
    if (!joined.empty()) joined += ", ";
    joined += text;
  }
  copy.set("services", std::move(services));

  platform::log_error("hubwarden_info: mark_running_services_configured(): marked running services configured: " +
                      joined);

  Dict request{{"configuration", std::move(copy)}};
  ReplySlot ignored;
  return write_service_config(&request, ignored, context);
}

Dict build_ds_info(Dict* context) {
  Array servers;
  if (platform::has<platform::Directory>()) {
    for (const platform::DirectoryServer& server : platform::get<platform::Directory>().configured_servers()) {
      if (server.name == "127.0.0.1") continue;
      const char* type = nullptr;
      if (server.kind == platform::DirectoryServer::Kind::Ldap) type = "ldap";
      if (server.kind == platform::DirectoryServer::Kind::ActiveDirectory) type = "ad";
      if (type == nullptr) continue;
      servers.emplace_back(Dict{{"name", server.name}, {"type", type}});
    }
  }
  return Dict{{"parentDirServers", std::move(servers)}};
}

Array build_backvault_info(Dict* context) {
  Array names;
  if (!platform::has<platform::ModuleManager>()) return names;
  std::optional<Dict> reply = platform::get<platform::ModuleManager>().do_command(
      Dict{{"command", "getSharePointList"}}, "hubwarden_sharing", module_user(context));
  const Array* share_points = reply ? reply->find_array("sharePointList") : nullptr;
  if (share_points == nullptr) return names;
  for (const Value& item : *share_points) {
    const Dict* share_point = item.as_dict();
    if (share_point == nullptr || !plist::is_flag_set(share_point->find("isBackvaultBackup"))) continue;
    if (const std::string* name = share_point->find_string("name")) names.emplace_back(*name);
  }
  return names;
}

std::optional<Dict> build_services_dict(bool for_advertising, bool ask_clients_to_ignore, Dict* context) {
  const ServicesTable* table = gServerToClientMapping();
  if (table == nullptr) return std::nullopt;

  Dict services;
  const std::string user = module_user(context);
  for (const auto& [module, client_id] : *table) {
    const std::string state = module_state(module, user);
    // Only services fully up are offered to clients; one still starting or
    // limping along is configured but not worth connecting to yet.
    if (state != "RUNNING" && state != "ON") continue;
    std::string_view id(client_id);
    if (id.substr(0, kClientIdPrefix.size()) == kClientIdPrefix) id.remove_prefix(kClientIdPrefix.size());
    if (!for_advertising && id == "DirectoryServices") {
      services.set(id, build_ds_info(context));
    } else {
      services.set(id, Value("1"));
    }
  }

  if (for_advertising) {
    if (std::optional<std::string> auth = auth_string()) {
      services.set("authData", Value(plist::Data(auth->begin(), auth->end())));
    }
  } else {
    Array backvault = build_backvault_info(context);
    if (!backvault.empty()) services.set("Backvault", std::move(backvault));
  }
  if (ask_clients_to_ignore) services.set("autoConfigIgnore", Value("1"));
  return services;
}

}  // namespace hubwarden
