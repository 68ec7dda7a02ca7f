// The cached server state: the "info" dictionary of the module context.
#pragma once

#include <optional>
#include <string>

#include "platform/error_name.h"
#include "plist/value.h"

namespace hubwarden {

// Rebuilds "info" (seventeen keys, in order); with a context, stores it whole
// and sets "contextDirty". Inside the daemon, also starts the background
// refresh of the interface list. Always returns nullptr.
ErrorName update_cached_state(plist::Dict* context);

// The machine's hardware serial number, or nullopt.
std::optional<std::string> get_hardware_serial_number();

}  // namespace hubwarden
