// Module-wide state made once and kept for the life of the process.
#pragma once

#include <atomic>
#include <optional>
#include <string>

namespace hubwarden {

// True once an idle pass numbered 0 has run: the module runs inside the
// daemon.
extern std::atomic<bool> gRunningUnderHubwardend;

// The per-load authentication string (a UUID's 36-character text), made by
// pass zero; nullopt before that.
std::optional<std::string> auth_string();
// Makes the authentication string if it does not exist yet.
void create_auth_string();

void reset_auth_string_for_testing();

// Test hook: returns every module-wide object to its state at load.
void reset_module_globals_for_testing();

}  // namespace hubwarden
