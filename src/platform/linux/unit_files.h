// The state of systemd unit files under the platform root, read and changed
// the way `systemctl --root` does it: straight from the unit directories and
// their *.wants/ and *.requires/ links, without a running systemd and
// without forking anything. This is what the service manager falls back to
// when systemd does not run or the root is a sandbox.
//
// Handled: units in /etc/systemd/system, /run/systemd/system,
// /lib/systemd/system and /usr/lib/systemd/system (first directory wins);
// masking by a link to /dev/null; template instances ("name@inst.service"
// found through "name@.service"); aliases that are links in a unit directory
// to a unit of another name; [Install] WantedBy=, RequiredBy= and Alias=.
// Not handled: drop-in directories, Also=, DefaultInstance=, generators and
// presets.
//
// Functions are stateless and safe from several threads; concurrent enable
// and disable of the same unit leave the links of whichever ran last.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace platform {

// Unit directories in search order, as absolute paths inside the root.
extern const std::vector<std::string> kUnitSearchDirs;
// The only directory this code writes links into (inside the root).
inline constexpr const char kUnitAdminDir[] = "/etc/systemd/system";

struct UnitFileInfo {
  std::string name;         // the unit as asked
  std::string path;         // the unit file inside the root, links followed
  bool masked = false;      // true: a link to /dev/null; the fields below are empty
  std::string alias_of;     // set when name is an alias of this other unit
  std::vector<std::string> wanted_by;
  std::vector<std::string> required_by;
  std::vector<std::string> aliases;
  std::string exec_program;  // the program of the first ExecStart=, "" when none
  std::string pid_file;      // PIDFile=, "" when none
};

// What the unit file says about name, or nullopt when no unit directory has
// it. Aliases are reported with alias_of set and the alias target's
// contents.
std::optional<UnitFileInfo> find_unit_file(const std::string& name);

enum class UnitFileState {
  kNotFound,  // no unit file
  kMasked,    // linked to /dev/null
  kEnabled,   // linked from some *.wants/ or *.requires/ directory
  kDisabled,  // could be enabled, is not
  kStatic,    // has no [Install] targets; runs only when pulled in
};

// For an alias, the state of the unit it names.
UnitFileState unit_file_state(const std::string& name);

// Creates the *.wants/ and *.requires/ links of the unit's [Install] targets
// and its Alias= links under /etc/systemd/system, each link replacing any
// old one atomically. Returns 0, ENOENT when the unit is not installed, EPERM
// when it is masked, EINVAL when it has nothing to install (no targets, or a
// template asked for without an instance), or the errno of the failed link.
int enable_unit_file(const std::string& name);

// Removes every *.wants/ and *.requires/ link named after the unit under
// /etc/systemd/system and its Alias= links. Returns 0 (also when nothing was
// enabled), ENOENT when the unit is not installed, or the errno of a failed
// removal.
int disable_unit_file(const std::string& name);

// Splits "name@inst.service" into its template "name@.service" and instance
// "inst"; nullopt for other names.
struct UnitInstance {
  std::string template_name;
  std::string instance;
};
std::optional<UnitInstance> split_unit_instance(const std::string& name);

}  // namespace platform
