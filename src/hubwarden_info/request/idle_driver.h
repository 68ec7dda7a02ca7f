// The idle driver's result codes.
#pragma once

#include "platform/error_name.h"

namespace hubwarden {

inline constexpr const char* kSetupDoneMarker = "/var/db/.MarloSetupDone";

// The result code reported for a pass whose first error was first_error:
// 0 for none, 12 for "CANNOT_MALLOC_ERR", 2 for "SETTING_NOT_FOUND_ERR" and
// "CANNOT_LAUNCH_UPDATE_ERROR", 13 for any other.
int idle_result_code(ErrorName first_error);

}  // namespace hubwarden
