// The host's service modules: one per entry of the host configuration's
// "serviceModules" whose units include an installed one. Each stands for a
// network service (web, mail, DNS, ...) and answers {"command": "getState"}
// from the activity of that service's systemd unit, so that the module
// manager can tell which services run. The modules whose users the status
// report counts also answer "getConnectedUsers" (or, for streaming,
// "getConnections") from the service itself.
//
// Modules are safe from several threads; the unit questions go to a shared
// UnitInspector that does its own locking.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "hubwardend/connected_users.h"
#include "hubwardend/service_module.h"
#include "platform/linux/job_map.h"
#include "platform/linux/unit_inspector.h"

namespace hubwardend {

// The reply state for a unit's activity: "active" and "reloading" are
// "RUNNING", "activating" is "STARTING", anything else "STOPPED".
const char* service_state_for(const std::string& active_state);

// How a module answers for its connected users: the request's command, the
// reply key holding the list, and where the list comes from (null: the
// service cannot say cheaply, so the list is always empty).
struct ConnectedUsersAnswer {
  std::string command;
  std::string reply_key;
  std::shared_ptr<ConnectedUsersReader> reader;
};

// The answer of the module called name whose unit is unit, or nullopt for
// modules whose users are not counted: "hubwarden_smb" and
// "hubwarden_filer" list Samba's sessions (both, since the file server is
// served by Samba too), "hubwarden_ftp" the FTP daemon's sessions,
// "hubwarden_mail" Dovecot's connections, and "hubwarden_mediastream" an
// empty "connectionsArray" (its listeners are only to be had from the
// streaming server's password-protected statistics page). samba is the
// Samba reader the first two share.
std::optional<ConnectedUsersAnswer> connected_users_answer_for(const std::string& name, const std::string& unit,
                                                               std::shared_ptr<platform::UnitInspector> units,
                                                               std::shared_ptr<ConnectedUsersReader> samba);

class UnitServiceModule : public ServiceModule {
 public:
  UnitServiceModule(std::string name, std::string unit, std::shared_ptr<platform::UnitInspector> units,
                    std::optional<ConnectedUsersAnswer> users = std::nullopt);

  const std::string& name() const override { return name_; }
  const std::string& unit() const { return unit_; }
  // {"state": ...} for "getState". For the users' command when the module
  // has one: {reply_key: [names]}, an empty array while the unit does not
  // run (the module exists and knows there is nobody: that is an answer,
  // where no reply would mean a command the module does not know). No
  // reply for anything else.
  std::optional<plist::Dict> handle(const plist::Dict& request, const std::string& user) override;

 private:
  const std::string name_;
  const std::string unit_;
  const std::shared_ptr<platform::UnitInspector> units_;
  const std::optional<ConnectedUsersAnswer> users_;
};

// One module per configured service module with an installed unit (its
// first installed candidate), in configuration order, with their users'
// answers (readers kept for at most kConnectedUsersMaxAge).
std::vector<std::unique_ptr<ServiceModule>> load_service_modules(const platform::HostServiceMap& map,
                                                                 std::shared_ptr<platform::UnitInspector> units);

// The same for the host configuration in effect, asking a service manager
// of its own. REQUIRES: platform Paths installed.
std::vector<std::unique_ptr<ServiceModule>> load_service_modules();

}  // namespace hubwardend
