// The system-wide preferences store on Linux: one XML property list,
// "/Library/Preferences/.GlobalPreferences.plist", resolved through the
// platform root (the host's path table puts it beside the module's own
// preferences). Safe from any thread.
#pragma once

#include <memory>

#include "platform/preferences.h"

namespace platform {

inline constexpr char kGlobalPreferencesPath[] = "/Library/Preferences/.GlobalPreferences.plist";

// The store in kGlobalPreferencesPath. Reads the file afresh on every get
// that no pending change answers, so changes by other programs are seen.
// flush() replaces the file atomically; a file that is not a readable
// dictionary is renamed aside (".damaged" appended, replacing an older
// one) and logged, never overwritten.
std::unique_ptr<Preferences> make_global_preferences();

}  // namespace platform
