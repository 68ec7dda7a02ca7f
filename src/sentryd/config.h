// The monitor's command line and its configuration file.
//
//   sentryd [--root DIR] [--rules DIR] [--socket PATH] [--config FILE] [--foreground]
//
// Paths default to the installed places and are taken under --root when
// it is given, so a test can run the monitor on a scratch tree. The
// configuration file is an XML property list dictionary:
//   "smtpRelay"  "host:port" of an SMTP relay; without it mail goes through
//                sendmail
//   "from"       the sender address; default "sentryd@" + host name
// Pure functions; thread-compatible.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "sentryd/log.h"

namespace sentryd {

struct Options {
  std::string root;  // "" for the machine's own root
  std::string rules_dir = "/etc/sentryd.d/rules";
  std::string socket_path = "/run/hubwarden/sentryd.sock";
  std::string config_file = "/etc/sentryd.d/sentryd.conf.plist";
  std::string sendmail = "/usr/sbin/sendmail";
  bool foreground = false;
};

// Parses the arguments after the program name and applies the root to every
// path. nullopt, with *error set, for an unknown or incomplete argument.
std::optional<Options> parse_command_line(const std::vector<std::string>& args, std::string* error);

struct Config {
  std::string smtp_relay;  // "" to use sendmail
  std::string from;
};

// Reads the configuration file. A missing file gives the defaults quietly;
// a damaged file or a bad member gives the defaults for what is damaged,
// with a log line each.
Config load_config(const std::string& path, const std::string& host_name, const LogFn& log);

}  // namespace sentryd
