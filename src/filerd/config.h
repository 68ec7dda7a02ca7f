// The daemon's command line and configuration file.
//
//   hubwarden-filerd [--config FILE] [--socket PATH] [--smb-conf PATH]
//                    [--smbcontrol PATH] [--smbstatus PATH] [--testparm PATH]
//
// The configuration file (default /etc/hubwarden/filerd.conf.plist) is an
// XML property list dictionary; the command line wins over it:
//   "SambaConfig"      Samba's configuration ("/etc/samba/smb.conf")
//   "SmbcontrolPath"   "/usr/bin/smbcontrol"
//   "SmbstatusPath"    "/usr/bin/smbstatus"
//   "TestparmPath"     "/usr/bin/testparm"
//   "SystemctlPath"    "/bin/systemctl"
//   "SambaUnit"        the unit that runs smbd ("smbd.service")
//   "ToolTimeout"      seconds a Samba tool may take (default 5, 1..60)
// Pure functions; thread-compatible.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace filerd {

constexpr const char* kDefaultConfigFile = "/etc/hubwarden/filerd.conf.plist";
constexpr const char* kDefaultSambaConfig = "/etc/samba/smb.conf";

struct Options {
  std::string config_file = kDefaultConfigFile;
  std::string socket_path = "/run/hubwarden/filer.sock";
  std::string smb_conf = kDefaultSambaConfig;
  std::string smbcontrol = "/usr/bin/smbcontrol";
  std::string smbstatus = "/usr/bin/smbstatus";
  std::string testparm = "/usr/bin/testparm";
  std::string systemctl = "/bin/systemctl";
  std::string samba_unit = "smbd.service";
  double tool_timeout_seconds = 5;
};

using LogFn = std::function<void(const std::string&)>;

// Reads the configuration file named by --config (or the default), then
// applies the other arguments over it. nullopt, with *error set, for an
// unknown or incomplete argument. A missing file gives the defaults
// quietly; a damaged one or a bad member is logged and skipped.
std::optional<Options> load_options(const std::vector<std::string>& args, const LogFn& log, std::string* error);

}  // namespace filerd
