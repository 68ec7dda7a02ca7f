// The host's prefix table: compiled-in defaults and the configuration files.
#include "platform/linux/host_paths.h"

#include "platform/file_util.h"
#include "platform/linux/host_config.h"
#include "platform/linux/job_map.h"
#include "platform/log.h"
#include "plist/codec.h"

namespace platform {

namespace {

void overlay_file(const std::string& root, const char* path, PathMap* map) {
  // Read straight under root: the Paths these entries are for does not
  // exist yet, and configuration files are never themselves mapped.
  std::string error;
  if (std::optional<plist::Dict> config = read_host_config(host_config_file(path, root + path), &error))
    apply_path_config(*config, path, map);
  else if (!error.empty())
    log_error(std::string("hubwardend: ignoring the paths of ") + path + ": " + error);
}

}  // namespace

PathMap default_path_map() {
  // /var/db/hubwarden holds our own state (history, directory records) and
  // gets the package's folder itself; the rest of /var/db is the module's
  // marker files, kept apart from the preferences so the two cannot meet.
  static constexpr std::pair<const char*, const char*> kDefaults[] = {
      {"/Library/Preferences", "/var/lib/hubwarden/preferences"},
      {"/var/db/hubwarden", "/var/lib/hubwarden"},
      {"/var/db", "/var/lib/hubwarden/db"},
      {"/private/var/run", "/run/hubwarden"},
      {"/Library/Logs", "/var/log/hubwarden"},
      // Debian's NTP daemon (ntpsec) reads its configuration from here.
      {"/etc/ntp.conf", "/etc/ntpsec/ntp.conf"},
  };
  PathMap map;
  std::string why;
  for (const auto& [prefix, target] : kDefaults) map.set(prefix, target, &why);
  return map;
}

void apply_path_config(const plist::Dict& config, std::string_view source, PathMap* map) {
  const plist::Value* paths = config.find("paths");
  if (paths == nullptr) return;
  std::string where = "hubwardend: " + std::string(source) + ": ";
  const plist::Dict* dict = paths->as_dict();
  if (dict == nullptr) {
    log_error(where + "\"paths\" is not a dictionary; ignored");
    return;
  }
  for (const auto& [prefix, value] : *dict) {
    const std::string* target = value.as_string();
    std::string why;
    if (target == nullptr) {
      why = "the target is not a string";
    } else if (target->empty()) {
      map->erase(prefix);
      continue;
    } else if (map->set(prefix, *target, &why)) {
      continue;
    }
    log_error(where + "ignoring the path entry \"" + prefix + "\": " + why);
  }
}

PathMap load_path_map(const std::string& root) {
  std::string base = root;
  while (!base.empty() && base.back() == '/') base.pop_back();
  PathMap map = base.empty() ? default_path_map() : PathMap();
  overlay_file(base, kShippedHostConfigPath, &map);
  overlay_file(base, kHostConfigPath, &map);
  return map;
}

}  // namespace platform
