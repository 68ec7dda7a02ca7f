// The host's prefix table: where the folders the module names but a Linux
// system does not have ("/Library/Preferences", "/var/db", ...) live on this
// machine. It comes from the "paths" dictionary of the host configuration,
// the same two files as the service configuration (the shipped copy, then
// the administrator's), each mapping a prefix to a folder:
//
//   <key>paths</key>
//   <dict>
//     <key>/Library/Preferences</key> <string>/var/lib/hubwarden/preferences</string>
//   </dict>
//
// An empty string removes the mapping of that prefix. The functions here
// are called once, while the host sets itself up; they are not thread-safe.
#pragma once

#include <string>
#include <string_view>

#include "platform/paths.h"
#include "plist/value.h"

namespace platform {

// The table a machine gets when neither file says otherwise: the module's
// settings and state under /var/lib/hubwarden, its run-time status files
// under /run/hubwarden, its logs under /var/log/hubwarden.
PathMap default_path_map();

// Lays the "paths" dictionary of config over map. An entry that is not a
// string, or that PathMap refuses (a relative or ".." path, a prefix that
// maps into itself), is logged at error priority, naming source, and
// skipped; the other entries still apply. A "paths" value that is not a
// dictionary is logged and ignored whole.
void apply_path_config(const plist::Dict& config, std::string_view source, PathMap* map);

// The table in effect for root (a directory; "/" for the machine). At the
// machine's root it starts from default_path_map(); in a sandbox it starts
// empty, so a sandbox keeps the module's own paths unless a host
// configuration inside it maps them. Either way both configuration files
// are read from under root and laid over it, and every target is again
// resolved under root. An unreadable or malformed file is logged and
// skipped.
PathMap load_path_map(const std::string& root);

}  // namespace platform
