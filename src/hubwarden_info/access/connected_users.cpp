// Connected users, counted across the service modules that keep them.
#include "access/connected_users.h"

#include "access/services_table.h"
#include "platform/host_services.h"
#include "platform/registry.h"

namespace hubwarden {

namespace {

struct UserSource {
  const char* gate;  // client identifier that must be configured; nullptr: always asked
  const char* module;
  const char* command;
  const char* reply_key;
};

// Mail has no gate: it is asked even when not marked configured.
constexpr UserSource kSources[] = {
    {"com.marlo.Overseer.MarloFile", "hubwarden_filer", "getConnectedUsers", "usersArray"},
    {"com.marlo.Overseer.FTP", "hubwarden_ftp", "getConnectedUsers", "usersArray"},
    {nullptr, "hubwarden_mail", "getConnectedUsers", "usersArray"},
    {"com.marlo.Overseer.Windows", "hubwarden_smb", "getConnectedUsers", "usersArray"},
    {"com.marlo.Overseer.Mediastream", "hubwarden_mediastream", "getConnections", "connectionsArray"},
};

bool is_configured(const plist::Dict* services, const char* client) {
  const plist::Dict* entry = services ? services->find_dict(client) : nullptr;
  return entry && plist::is_flag_set(entry->find("configured"));
}

}  // namespace

uint64_t get_numConnectedUsers(const plist::Dict* services, plist::Dict* context) {
  if (!services_ready() || !platform::has<platform::ModuleManager>()) return 0;
  platform::ModuleManager& manager = platform::get<platform::ModuleManager>();
  std::string user = platform::do_get_user(context, 0, 0);
  uint64_t count = 0;
  for (const UserSource& source : kSources) {
    if (source.gate && !is_configured(services, source.gate)) continue;
    std::optional<plist::Dict> reply =
        manager.do_command(plist::Dict{{"command", source.command}}, source.module, user);
    // Entries are counted, not told apart: a user on two services counts
    // twice.
    if (const plist::Array* list = reply ? reply->find_array(source.reply_key) : nullptr) count += list->size();
  }
  return count;
}

}  // namespace hubwarden
