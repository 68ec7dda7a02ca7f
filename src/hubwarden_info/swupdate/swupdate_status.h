// The software update job's status file and what the module concludes from
// it. The update tool writes the file; the module only reads and deletes
// it, and probes the process that the file names with signal 0, never with
// a signal that does anything.
//
// Called with the module context held by the caller (the daemon's context
// lock); no locking of their own.
#pragma once

#include <optional>

#include "request/operations.h"

namespace hubwarden {

// The update tool, by the path the module knows it by; the host's tools
// table says what runs in its place.
inline constexpr const char* kSoftwareUpdateTool = "/usr/sbin/softwareupdate";
// The status file as the module names it; resolved through the platform
// paths before use, and handed to the tool resolved.
inline constexpr const char* kSoftwareUpdateStatusPath = "/private/var/run/SoftwareUpdateStatus.plist";

// Job state codes of update_swupdate_state.
enum SoftwareUpdateState : int {
  kSwupdateFinished = 0,  // finished, or nothing recorded
  kSwupdateGone = 1,      // a recorded job has gone
  kSwupdateMismatch = 2,  // reserved: a pid mismatch is repaired in place
  kSwupdateCrashed = 3,   // died before finishing
  kSwupdateRunning = 4,   // the tool still runs
};

// The status file's real path (under the root).
std::string swupdate_status_path();

// The status file's dictionary; nullopt when the file is missing,
// unreadable, not a property list or not a dictionary.
std::optional<Dict> read_swupdate_status_dict();

// Reads the status file, brings the context's job keys up to date and
// returns a SoftwareUpdateState. Deletes the file when it names no process
// or when a crashed install has in fact finished (then a scan is queued to
// rebuild it). context may be null: nothing is recorded then.
int update_swupdate_state(Dict* context);

// Runs a quiet list scan synchronously, rewriting the status file; returns
// the tool's exit status (-1 when it could not run).
int update_swupdate_file();

// The log word of a state code, for "unexpected Software Update state".
const char* swupdate_state_word(int code);

// Whether pid (a value from the status file) names a live process, by
// signal 0. Values that name no single other process (0, 1, negative
// numbers that name groups, numbers beyond the pid range, this process)
// are never probed and count as gone.
bool swupdate_process_alive(const Value& pid);

}  // namespace hubwarden
