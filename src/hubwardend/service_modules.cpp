// Service modules backed by systemd units.
#include "hubwardend/service_modules.h"

#include <utility>

#include "platform/linux/systemd_service_manager.h"

namespace hubwardend {

const char* service_state_for(const std::string& active_state) {
  if (active_state == "active" || active_state == "reloading") return "RUNNING";
  if (active_state == "activating") return "STARTING";
  return "STOPPED";
}

std::optional<ConnectedUsersAnswer> connected_users_answer_for(const std::string& name, const std::string& unit,
                                                               std::shared_ptr<platform::UnitInspector> units,
                                                               std::shared_ptr<ConnectedUsersReader> samba) {
  auto cached = [](std::shared_ptr<ConnectedUsersReader> reader) {
    return std::make_shared<CachedUsersReader>(std::move(reader), kConnectedUsersMaxAge);
  };
  if (name == "hubwarden_smb" || name == "hubwarden_filer")
    return ConnectedUsersAnswer{"getConnectedUsers", "usersArray", std::move(samba)};
  if (name == "hubwarden_ftp") {
    const std::string daemon = unit.substr(0, unit.find('.'));
    if (daemon != "vsftpd" && daemon != "proftpd") return ConnectedUsersAnswer{"getConnectedUsers", "usersArray", {}};
    return ConnectedUsersAnswer{"getConnectedUsers", "usersArray", cached(make_ftp_users_reader(daemon))};
  }
  if (name == "hubwarden_mail")
    return ConnectedUsersAnswer{"getConnectedUsers", "usersArray", cached(make_dovecot_users_reader(units))};
  if (name == "hubwarden_mediastream") return ConnectedUsersAnswer{"getConnections", "connectionsArray", {}};
  return std::nullopt;
}

UnitServiceModule::UnitServiceModule(std::string name, std::string unit, std::shared_ptr<platform::UnitInspector> units,
                                     std::optional<ConnectedUsersAnswer> users)
    : name_(std::move(name)), unit_(std::move(unit)), units_(std::move(units)), users_(std::move(users)) {}

std::optional<plist::Dict> UnitServiceModule::handle(const plist::Dict& request, const std::string& user) {
  const std::string* command = request.find_string("command");
  if (command == nullptr) return std::nullopt;
  if (*command == "getState") return plist::Dict{{"state", service_state_for(units_->active_state(unit_))}};
  if (!users_ || *command != users_->command) return std::nullopt;
  plist::Array names;
  if (users_->reader != nullptr && std::string(service_state_for(units_->active_state(unit_))) == "RUNNING") {
    for (std::string& name : users_->reader->users()) names.emplace_back(std::move(name));
  }
  return plist::Dict{{users_->reply_key, std::move(names)}};
}

std::vector<std::unique_ptr<ServiceModule>> load_service_modules(const platform::HostServiceMap& map,
                                                                 std::shared_ptr<platform::UnitInspector> units) {
  std::vector<std::unique_ptr<ServiceModule>> modules;
  auto samba = std::make_shared<CachedUsersReader>(make_samba_users_reader(), kConnectedUsersMaxAge);
  for (const auto& [name, candidates] : map.service_modules) {
    for (const std::string& unit : candidates) {
      if (!units->unit_installed(unit)) continue;
      modules.push_back(
          std::make_unique<UnitServiceModule>(name, unit, units, connected_users_answer_for(name, unit, units, samba)));
      break;
    }
  }
  return modules;
}

std::vector<std::unique_ptr<ServiceModule>> load_service_modules() {
  std::shared_ptr<platform::SystemdServiceManager> manager = platform::make_shared_systemd_service_manager();
  const platform::HostServiceMap& map = manager->host_service_map();
  return load_service_modules(map, manager);
}

}  // namespace hubwardend
