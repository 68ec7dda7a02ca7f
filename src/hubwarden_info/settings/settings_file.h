// The module's settings file, "/Library/Preferences/com.marlo.hubwarden_info.plist"
// (under the installed root): the only way the module reads or writes it.
//
// Every call reads the whole file and the writers write it whole and
// atomically; nothing is cached, so every read sees the last completed
// write. Access is guarded by gPrefsFileLock (shared for the readers,
// exclusive for the writers), which exists from the module's load on, so
// requests served before the first idle pass are guarded as well. Missing
// or unparsable files read as no settings.
//
// Other processes (a command-line run of the host beside the daemon) are
// kept out by an advisory lock on kSettingsLockPath, taken inside
// gPrefsFileLock: shared while reading, exclusive for a whole
// read-merge-write. A writer that cannot get it within a few seconds
// writes nothing. A write that would make the file larger than
// kMaxSettingsFileBytes is refused the same way, and a file that exists but
// does not parse is moved aside to "<file>.corrupt-<unix time>-<n>" (and
// logged, since stored data moves) before a writer replaces it. Like any
// failed write, a refused one is neither reported nor logged; it leaves the
// file as it was.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <optional>
#include <shared_mutex>
#include <string>

#include "plist/value.h"

namespace hubwarden {

extern std::atomic<std::shared_mutex*> gPrefsFileLock;

inline constexpr const char* kSettingsFilePath = "/Library/Preferences/com.marlo.hubwarden_info.plist";
inline constexpr const char* kSettingsLockPath = "/Library/Preferences/com.marlo.hubwarden_info.plist.lock";

// The file holds a few dozen small keys; anything near this size is a
// runaway value that would make every later read and write slow.
inline constexpr size_t kMaxSettingsFileBytes = 4 * 1024 * 1024;

// Makes gPrefsFileLock if it does not exist yet (after a test reset; pass
// zero calls it too, harmlessly).
void create_settings_lock();

void write_settings_file(const plist::Dict& settings);
std::optional<plist::Dict> read_settings_file();
std::optional<plist::Value> read_key_from_settings_file(const std::string& key);
// Note the order: value first, key second.
void overwrite_key_in_settings_file(const plist::Value& value, const std::string& key);
void update_keys_in_settings_file(const plist::Dict& changes);
void update_key_in_settings_file(const plist::Dict& changes, const std::string& key);

// Test hook: forgets the lock; the next use makes a fresh one.
void reset_settings_lock_for_testing();
// Test hook: how long to wait for another process's lock (default 5 s).
void set_settings_lock_timeout_for_testing(std::chrono::milliseconds timeout);

}  // namespace hubwarden
