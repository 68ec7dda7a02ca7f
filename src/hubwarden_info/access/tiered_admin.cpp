// The tiered administrator summary.
#include "access/tiered_admin.h"

#include <string>
#include <string_view>

#include "access/acls.h"
#include "platform/directory.h"
#include "platform/host_services.h"
#include "platform/registry.h"

namespace hubwarden {

namespace {

// Each family is read only this far; a console shows no more per family.
constexpr size_t kGroupsPerFamily = 250;

// "com.marlo.admin_mail" -> "hubwarden_mail"; "com.marlo.admin_all_services"
// -> "hubwarden_all": the module name is the piece between the first and
// the second underscore.
std::string module_key(std::string_view group) {
  std::string key = "hubwarden_";
  size_t first = group.find('_');
  if (first == std::string_view::npos) return key;
  std::string_view rest = group.substr(first + 1);
  key += rest.substr(0, rest.find('_'));
  return key;
}

void add_family(platform::Directory& directory, const std::string& node, const std::string& user,
                std::string_view prefix, bool monitor_only, plist::Dict* summary) {
  for (const std::string& group : directory.groups_with_prefix(node, std::string(prefix), kGroupsPerFamily)) {
    if (!directory.is_member(user, group)) continue;
    std::string key = module_key(group);
    // Administration is added first and wins over monitoring.
    if (monitor_only && summary->contains(key)) continue;
    summary->set(key, plist::Dict{{"monitorOnly", plist::Value(monitor_only)}});
  }
}

}  // namespace

ErrorName get_tiered_admin_summary(const plist::Dict* request, std::optional<plist::Dict>& result,
                                   plist::Dict* context) {
  std::string user = platform::do_get_user(context, 0, 0);
  if (platform::does_user_belong_to_group(user, "admin")) {
    result = plist::Dict{{"userIsFullAdmin", plist::Value(true)}};
    return nullptr;
  }
  if (!platform::has<platform::Directory>()) return kCouldNotFindUserRecord;
  platform::Directory& directory = platform::get<platform::Directory>();
  std::string local = directory.default_local_node_path();
  // Node failures surface as an empty query result or a missing user.
  directory.open_node(local);
  directory.open_node("/Search");
  int32_t status = platform::kDirectoryOK;
  if (user.empty() || !directory.find_user("/Search", user, &status)) return kCouldNotFindUserRecord;

  plist::Dict summary;
  add_family(directory, local, user, kAdminGroupPrefix, false, &summary);
  add_family(directory, local, user, kMonitorGroupPrefix, true, &summary);
  result = plist::Dict{{"userIsFullAdmin", plist::Value(false)}, {"tieredAdminSummary", plist::Value(std::move(summary))}};
  return nullptr;
}

}  // namespace hubwarden
