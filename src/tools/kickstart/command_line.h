// The kickstart tool's command line, in the single-dash style the
// administration module uses:
//   kickstart -activate [-users NAME,...] [knobs]
//   kickstart -configure -allowAccessFor (-specifiedUsers | -allUsers) [-users NAME,...] [knobs]
//   kickstart -deactivate [knobs]
//   kickstart -restart [-agent] [knobs]
// Several actions may be given in one run (they run in the order configure,
// deactivate, activate, restart); -activate and -deactivate together are an
// error. Pure functions; thread-safe.
#pragma once

#include <string>
#include <vector>

namespace kickstart {

inline constexpr char kDefaultUnit[] = "tigervncserver@:1.service";
inline constexpr char kDefaultSystemctl[] = "/usr/bin/systemctl";
inline constexpr double kDefaultTimeoutSeconds = 30;

enum class Access { kUnchanged, kSpecifiedUsers, kAllUsers };

struct Options {
  bool help = false;
  bool activate = false;
  bool deactivate = false;
  bool configure = false;
  bool restart = false;
  bool verbose = false;  // progress lines on standard output
  Access access = Access::kUnchanged;
  std::vector<std::string> users;  // from -users; empty: the administrators
  std::string unit = kDefaultUnit;
  // Test knobs.
  std::string root = "/";
  std::string systemctl = kDefaultSystemctl;
  double timeout_seconds = kDefaultTimeoutSeconds;
};

struct CommandLine {
  Options options;
  std::string error;  // one line; empty when the command line is usable
  bool ok() const { return error.empty(); }
};

// args excludes the program name. Unknown options, missing or malformed
// values, unsafe unit or user names and contradictory actions are errors.
CommandLine parse_command_line(const std::vector<std::string>& args);

// The text -help prints.
std::string usage_text();

// Whether name is a systemd unit name that is safe to hand to systemctl: a
// known unit type suffix, a non-empty stem of letters, digits and ":-_.\@",
// at most 255 bytes, and not starting with '-' (so it cannot be taken for an
// option).
bool is_valid_unit_name(const std::string& name);

// Whether name is a plausible login name: letters, digits, '_', '.', '-'
// (not first) and an optional trailing '$', at most 32 bytes. These are the
// only names written into the VNC server's configuration, which is read as
// a script, so nothing with quotes, separators or spaces may pass.
bool is_valid_user_name(const std::string& name);

}  // namespace kickstart
