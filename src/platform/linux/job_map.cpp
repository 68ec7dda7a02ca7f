// The host's service configuration: shipped defaults, the configuration
// files under the root, and the job/module lookups.
#include "platform/linux/job_map.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "platform/file_util.h"
#include "platform/linux/host_config.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "plist/codec.h"

namespace platform {

namespace {

constexpr std::array<std::string_view, 11> kUnitSuffixes = {".service", ".socket", ".target",    ".timer",
                                                            ".path",    ".mount",  ".automount", ".swap",
                                                            ".slice",   ".scope",  ".device"};

bool has_unit_suffix(std::string_view name) {
  return std::any_of(kUnitSuffixes.begin(), kUnitSuffixes.end(), [&](std::string_view suffix) {
    return name.size() > suffix.size() && name.substr(name.size() - suffix.size()) == suffix;
  });
}

// The job label a job description path names by convention:
// "/System/Library/LaunchDaemons/org.ntp.ntpd.plist" -> "org.ntp.ntpd".
std::string label_of_job_path(const std::string& path) {
  size_t slash = path.find_last_of('/');
  std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
  constexpr std::string_view kExt = ".plist";
  if (base.size() > kExt.size() && std::string_view(base).substr(base.size() - kExt.size()) == kExt) {
    base.resize(base.size() - kExt.size());
  }
  return base;
}

// Reads an array of unit names; false when value is not an array of strings.
bool read_units(const plist::Value& value, std::vector<std::string>* units) {
  const plist::Array* array = value.as_array();
  if (array == nullptr) return false;
  std::vector<std::string> out;
  for (const plist::Value& item : *array) {
    const std::string* name = item.as_string();
    if (name == nullptr || name->empty() || name->find('/') != std::string::npos) return false;
    out.push_back(normalize_unit_name(*name));
  }
  *units = std::move(out);
  return true;
}

// Lays the configuration file at path (under the root) over map. A missing
// file is not worth a log line; a broken one is.
bool overlay_file(const std::string& path, HostServiceMap* map) {
  std::string error;
  std::optional<plist::Dict> config = read_host_config(host_config_file(path, resolve(path)), &error);
  if (!config && error.empty()) return false;
  if (config && apply_host_config(*config, map, &error)) return true;
  log_error("hubwardend: ignoring " + path + ": " + error);
  return false;
}

}  // namespace

std::string normalize_unit_name(const std::string& name) { return has_unit_suffix(name) ? name : name + ".service"; }

std::vector<std::string> HostServiceMap::units_for_job(const std::string& job) const {
  auto it = jobs.find(job);
  if (it != jobs.end()) return it->second;
  if (!job.empty() && job.front() == '/') {
    it = jobs.find(label_of_job_path(job));
    if (it != jobs.end()) return it->second;
    return {};
  }
  if (has_unit_suffix(job) && job.find('/') == std::string::npos) return {job};
  return {};
}

std::vector<std::string> HostServiceMap::units_for_module(const std::string& module) const {
  for (const auto& [name, units] : service_modules) {
    if (name == module) return units;
  }
  return {};
}

HostServiceMap default_host_service_map() {
  HostServiceMap map;
  const std::vector<std::string> ssh = {"ssh.service", "sshd.service"};
  const std::vector<std::string> ntp = {"ntpsec.service", "ntp.service", "chrony.service", "systemd-timesyncd.service"};
  const std::vector<std::string> filesync = {"hubwarden-filesync.service"};
  const std::vector<std::string> filer = {"hubwarden-filerd.service"};
  map.jobs = {
      {"org.net-snmp.snmpd", {"snmpd.service"}},
      {"com.openssh.sshd", ssh},
      {"/System/Library/LaunchDaemons/ssh.plist", ssh},
      {"org.ntp.ntpd", ntp},
      {"/System/Library/LaunchDaemons/org.ntp.ntpd.plist", ntp},
      {"com.marlo.screenlink", {"tigervncserver@:1.service"}},
      {"com.marlo.FilerServer", filer},
      {"/System/Library/LaunchDaemons/com.marlo.FilerServer.plist", filer},
      {"com.marlo.filesyncd", filesync},
      {"/System/Library/LaunchDaemons/com.marlo.FileSyncAgent.sshd.plist", filesync},
  };
  map.service_modules = {
      {"hubwarden_addressbook", {"radicale.service"}},
      {"hubwarden_filer", filer},
      {"hubwarden_calendar", {"radicale.service"}},
      {"hubwarden_dhcp", {"isc-dhcp-server.service", "kea-dhcp4-server.service"}},
      {"hubwarden_dirserv", {"slapd.service"}},
      {"hubwarden_dns", {"named.service", "bind9.service"}},
      {"hubwarden_ftp", {"vsftpd.service", "proftpd.service"}},
      {"hubwarden_ipfilter", {"nftables.service", "ufw.service"}},
      {"hubwarden_jabber", {"prosody.service", "ejabberd.service"}},
      {"hubwarden_mail", {"postfix.service", "dovecot.service"}},
      {"hubwarden_mysql", {"mariadb.service", "mysql.service"}},
      {"hubwarden_nat", {}},
      {"hubwarden_netstart", {"tftpd-hpa.service"}},
      {"hubwarden_nfs", {"nfs-server.service"}},
      {"hubwarden_notification", {"ntfy.service"}},
      {"hubwarden_podpub", {}},
      {"hubwarden_print", {"cups.service"}},
      {"hubwarden_proxy", {"squid.service"}},
      {"hubwarden_mediastream", {"icecast2.service"}},
      {"hubwarden_radius", {"freeradius.service"}},
      {"hubwarden_swupdate", {"apt-cacher-ng.service"}},
      {"hubwarden_vpn", {"strongswan-starter.service", "openvpn.service"}},
      {"hubwarden_web", {"nginx.service", "apache2.service"}},
      {"hubwarden_appweb", {"tomcat10.service", "tomcat9.service"}},
      {"hubwarden_smb", {"smbd.service"}},
      {"hubwarden_gridfarm", {"slurmctld.service"}},
  };
  return map;
}

bool apply_host_config(const plist::Dict& config, HostServiceMap* base, std::string* error) {
  // Work on a copy so that a bad entry halfway through leaves base as it was.
  HostServiceMap merged = *base;
  if (const plist::Value* jobs = config.find("jobs")) {
    const plist::Dict* dict = jobs->as_dict();
    if (dict == nullptr) {
      *error = "\"jobs\" is not a dictionary";
      return false;
    }
    for (const auto& [job, value] : *dict) {
      std::vector<std::string> units;
      if (job.empty() || !read_units(value, &units)) {
        *error = "job \"" + job + "\" does not list unit names";
        return false;
      }
      merged.jobs[job] = std::move(units);
    }
  }
  if (const plist::Value* modules = config.find("serviceModules")) {
    const plist::Dict* dict = modules->as_dict();
    if (dict == nullptr) {
      *error = "\"serviceModules\" is not a dictionary";
      return false;
    }
    for (const auto& [module, value] : *dict) {
      std::vector<std::string> units;
      if (module.empty() || !read_units(value, &units)) {
        *error = "service module \"" + module + "\" does not list unit names";
        return false;
      }
      auto it = std::find_if(merged.service_modules.begin(), merged.service_modules.end(),
                             [&](const auto& entry) { return entry.first == module; });
      if (it != merged.service_modules.end()) {
        it->second = std::move(units);
      } else {
        merged.service_modules.emplace_back(module, std::move(units));
      }
    }
  }
  *base = std::move(merged);
  return true;
}

HostServiceMap load_host_service_map() {
  HostServiceMap map = default_host_service_map();
  overlay_file(kShippedHostConfigPath, &map);
  overlay_file(kHostConfigPath, &map);
  return map;
}

}  // namespace platform
