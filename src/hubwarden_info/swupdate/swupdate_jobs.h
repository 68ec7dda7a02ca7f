// Software update jobs: launching the update tool as a detached job,
// queueing requests that arrive while one runs, and the periodic step that
// starts the queued job once the running one has ended
// (periodic_swupdate_handler, declared with the operations).
//
// Called with the module context held by the caller; no locking of their
// own. Only the short-lived forked process is waited for, never the job.
#pragma once

#include <string>

#include "request/operations.h"

namespace hubwarden {

// Starts a detached scan (identifiers null) or install of identifiers, its
// messages in language when not null. On success records the job in the
// context ("swupdatePid", "swupdateActive", both queues emptied) and
// returns the forked process's id; returns -1, logging why, when the fork
// failed. Entries of identifiers that are not strings are skipped.
int launch_swupdate_command(const std::string* language, Dict* context, const Array* identifiers);

// Queues identifiers for install when nothing is queued yet (or what is
// queued is not an array); an install queued earlier is kept as it is and
// identifiers are then dropped. Null identifiers change nothing.
void add_swupdate_array_to_context(Dict* context, const Array* identifiers);

}  // namespace hubwarden
