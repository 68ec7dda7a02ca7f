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

UnitServiceModule::UnitServiceModule(std::string name, std::string unit,
                                     std::shared_ptr<platform::UnitInspector> units)
    : name_(std::move(name)), unit_(std::move(unit)), units_(std::move(units)) {}

std::optional<plist::Dict> UnitServiceModule::handle(const plist::Dict& request, const std::string& user) {
  const std::string* command = request.find_string("command");
  if (command == nullptr || *command != "getState") return std::nullopt;
  return plist::Dict{{"state", service_state_for(units_->active_state(unit_))}};
}

std::vector<std::unique_ptr<ServiceModule>> load_service_modules(const platform::HostServiceMap& map,
                                                                 std::shared_ptr<platform::UnitInspector> units) {
  std::vector<std::unique_ptr<ServiceModule>> modules;
  for (const auto& [name, candidates] : map.service_modules) {
    for (const std::string& unit : candidates) {
      if (!units->unit_installed(unit)) continue;
      modules.push_back(std::make_unique<UnitServiceModule>(name, unit, units));
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
