// The host's tools table: the module names the tools it runs by the paths
// they have on the system it was written for ("/usr/sbin/softwareupdate",
// "/sbin/reboot"); this table says what runs in their place here, as a
// program and the arguments it needs before the module's own, e.g.
// "/sbin/reboot" -> ["/usr/bin/systemctl", "reboot"].
//
// Built once and then only read; safe to share between threads as long as
// nobody modifies it.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "plist/value.h"

namespace platform {

struct ToolMap {
  // Tool path -> program followed by its leading arguments; never empty.
  std::map<std::string, std::vector<std::string>> tools;

  // What runs for path: the mapped program and its leading arguments, or
  // {path} when path is not mapped.
  std::vector<std::string> command_for(const std::string& path) const;
};

// The defaults this program ships with, for the real root.
ToolMap default_tool_map();

// Lays the "tools" table of a configuration dictionary over base: an entry
// replaces the one of the same name, an empty array removes the mapping so
// the tool runs as itself. Tool paths and programs must be absolute.
// Returns false, with *error set and base untouched, when the table is not
// shaped as expected.
bool apply_tool_config(const plist::Dict& config, ToolMap* base, std::string* error);

// The table in effect: at the real root the compiled-in defaults, then the
// shipped file, then the administrator's file. On a sandbox root only the
// two files inside it count, so a sandbox never reaches the machine's tools
// through a default. A malformed file is logged and skipped whole.
ToolMap load_tool_map();

}  // namespace platform
