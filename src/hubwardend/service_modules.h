// The host's service modules: one per entry of the host configuration's
// "serviceModules" whose units include an installed one. Each stands for a
// network service (web, mail, DNS, ...) and answers {"command": "getState"}
// from the activity of that service's systemd unit, so that the module
// manager can tell which services run.
//
// Modules are safe from several threads; the unit questions go to a shared
// UnitInspector that does its own locking.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "hubwardend/service_module.h"
#include "platform/linux/job_map.h"
#include "platform/linux/unit_inspector.h"

namespace hubwardend {

// The reply state for a unit's activity: "active" and "reloading" are
// "RUNNING", "activating" is "STARTING", anything else "STOPPED".
const char* service_state_for(const std::string& active_state);

class UnitServiceModule : public ServiceModule {
 public:
  UnitServiceModule(std::string name, std::string unit, std::shared_ptr<platform::UnitInspector> units);

  const std::string& name() const override { return name_; }
  const std::string& unit() const { return unit_; }
  // {"state": ...} for "getState"; no reply for anything else.
  std::optional<plist::Dict> handle(const plist::Dict& request, const std::string& user) override;

 private:
  const std::string name_;
  const std::string unit_;
  const std::shared_ptr<platform::UnitInspector> units_;
};

// One module per configured service module with an installed unit (its
// first installed candidate), in configuration order.
std::vector<std::unique_ptr<ServiceModule>> load_service_modules(const platform::HostServiceMap& map,
                                                                 std::shared_ptr<platform::UnitInspector> units);

// The same for the host configuration in effect, asking a service manager
// of its own. REQUIRES: platform Paths installed.
std::vector<std::unique_ptr<ServiceModule>> load_service_modules();

}  // namespace hubwardend
