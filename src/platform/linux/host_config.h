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

}  // namespace platform
