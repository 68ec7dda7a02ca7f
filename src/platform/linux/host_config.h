// Reading one file of the host configuration (the shipped defaults or the
// administrator's /etc file). Each table of the configuration has its own
// loader and its own rule for laying one file over another; what they share
// is how a file is read and when it counts as broken. Safe from any thread.
#pragma once

#include <optional>
#include <string>

#include "plist/value.h"

namespace platform {

// The root dictionary of the configuration file at path (a real file-system
// path, already under the root). Returns nullopt with *error empty when the
// file is absent or unreadable (the common case, not worth a log line), and
// nullopt with *error set when it does not parse or its root is not a
// dictionary.
std::optional<plist::Dict> read_host_config(const std::string& path, std::string* error);

// The administrator's file may live elsewhere than under the root
// (`hubwardend serve --config FILE`). Every table reads it through
// host_config_file, so one setting moves all of them.
//
// Sets the real path of the administrator's file ("" for the usual place
// under the root). Called by the host at start, before any table is read.
void set_host_config_override(std::string real_path);
// The real path to read for the configuration file named logical_path
// (kShippedHostConfigPath or kHostConfigPath), which lies at under_root
// when nothing overrides it.
std::string host_config_file(std::string_view logical_path, std::string under_root);

}  // namespace platform
