// The update tool's command line:
//   softwareupdate [-q] (-l | -i NAME...) [-f FILE] [--lang L] [knobs]
//   softwareupdate --ignore NAME... [knobs]
//   softwareupdate --reset-ignored [knobs]
// Package names may stand anywhere among the options (the administration
// module puts them last); after "--" everything is a name. A word that
// starts with '-' and is not an option is an error, never a name.
// Pure functions; thread-safe.
#pragma once

#include <string>
#include <vector>

#include "tools/softwareupdate/ignore_list.h"

namespace softwareupdate {

enum class Mode { kScan, kInstall, kIgnore, kResetIgnored, kHelp };

struct Options {
  Mode mode = Mode::kHelp;
  bool quiet = false;
  std::string status_file;  // "" writes no status file
  std::string language;     // accepted; messages stay English
  std::vector<std::string> names;
  // Test and administrator knobs.
  std::vector<std::string> apt_options;  // "KEY=VALUE", given to every apt tool
  std::string ignore_file = kDefaultIgnoreFile;
  std::string reboot_required_file = "/run/reboot-required";
};

struct CommandLine {
  Options options;
  std::string error;  // one line; empty when the command line is usable
  bool ok() const { return error.empty(); }
};

// args excludes the program name.
CommandLine parse_command_line(const std::vector<std::string>& args);

std::string usage_text();

}  // namespace softwareupdate
