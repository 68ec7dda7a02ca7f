// The module's settings file, "/Library/Preferences/com.marlo.hubwarden_info.plist"
// (under the installed root): the only way the module reads or writes it.
//
// Every call reads the whole file and the writers write it whole and
// atomically; nothing is cached, so every read sees the last completed
// write. Access is guarded by gPrefsFileLock (shared for the readers,
// exclusive for the writers) once pass zero has made it; before that the
// functions run unlocked. Missing or unparsable files read as no settings.
#pragma once

#include <atomic>
#include <optional>
#include <shared_mutex>
#include <string>

#include "plist/value.h"

namespace hubwarden {

extern std::atomic<std::shared_mutex*> gPrefsFileLock;

inline constexpr const char* kSettingsFilePath = "/Library/Preferences/com.marlo.hubwarden_info.plist";

// Makes gPrefsFileLock if it does not exist yet (pass zero).
void create_settings_lock();

void write_settings_file(const plist::Dict& settings);
std::optional<plist::Dict> read_settings_file();
std::optional<plist::Value> read_key_from_settings_file(const std::string& key);
// Note the order: value first, key second.
void overwrite_key_in_settings_file(const plist::Value& value, const std::string& key);
void update_keys_in_settings_file(const plist::Dict& changes);
void update_key_in_settings_file(const plist::Dict& changes, const std::string& key);

// Test hook: forgets the lock, as at load.
void reset_settings_lock_for_testing();

}  // namespace hubwarden
