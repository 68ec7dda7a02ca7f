// The host's service configuration: which systemd units stand behind a job
// of the service manager (named by label, "com.openssh.sshd", or by the path
// of its job description, "/System/Library/LaunchDaemons/ssh.plist"), and
// which units stand behind each service module of the host.
//
// Every entry lists candidate units in order of preference; the first one
// installed on the machine is the one used, so one configuration serves
// distributions that name the same daemon differently.
//
// The configuration is built once and then only read; a HostServiceMap is
// safe to share between threads as long as nobody modifies it.
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "plist/value.h"

namespace platform {

// Administrators override the shipped defaults here.
inline constexpr const char kHostConfigPath[] = "/etc/hubwarden/hubwardend.conf.plist";
// Where packages install the shipped defaults (also compiled in).
inline constexpr const char kShippedHostConfigPath[] = "/usr/share/hubwardend/hubwardend.conf.plist";

struct HostServiceMap {
  // Job label or job description path -> candidate units.
  std::map<std::string, std::vector<std::string>> jobs;
  // Service module name -> candidate units, in configuration order.
  std::vector<std::pair<std::string, std::vector<std::string>>> service_modules;

  // The candidates for job: an entry under the exact name, else (for a job
  // description path) under the file's base name without ".plist", which is
  // the job's label by convention. A bare unit name ("ssh.service") stands
  // for itself. Empty when nothing applies.
  std::vector<std::string> units_for_job(const std::string& job) const;
  // Candidates of a service module; empty when it has no entry.
  std::vector<std::string> units_for_module(const std::string& module) const;
};

// The defaults this program ships with.
HostServiceMap default_host_service_map();

// Reads "jobs" and "serviceModules" from a configuration dictionary and lays
// them over base: an entry replaces the one of the same name, new names are
// added, an empty array removes every candidate. Unit names without a type
// suffix get ".service". Returns false, with *error set and base untouched,
// when the dictionary is not shaped as expected.
bool apply_host_config(const plist::Dict& config, HostServiceMap* base, std::string* error);

// The configuration in effect: the compiled-in defaults, overlaid with the
// installed copy of the shipped file (a package may carry newer defaults
// than the binary), overlaid with the administrator's file; both files are
// read under the root. A malformed file is logged and skipped whole.
HostServiceMap load_host_service_map();

// Turns "nginx" into "nginx.service"; names that already carry a unit type
// suffix are kept as they are.
std::string normalize_unit_name(const std::string& name);

}  // namespace platform
