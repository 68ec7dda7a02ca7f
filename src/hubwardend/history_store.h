// The host's history service: one SQLite database that keeps the module's
// load samples (eighteen values per idle pass) and answers time-span
// queries with them.
//
// Samples are kept at full resolution for seven days, then as one-minute
// averages for thirty days, then as one-hour averages for a year; older
// data is dropped. The roll-up runs inside the update path every few
// hundred samples, so the file stays bounded without a separate job.
//
// The database runs in WAL mode with synchronous=NORMAL: a crash loses at
// most the sample being written, never what was committed before.
//
// Safe to call from several threads (one connection behind a mutex).
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "platform/host_services.h"

namespace hubwardend {

// Where the host keeps the database, relative to the platform root.
inline constexpr const char* kHistoryDatabasePath = "/var/db/hubwarden/history.sqlite3";

inline constexpr ErrorName kHistoryWriteErr = "HISTORY_WRITE_ERR";
inline constexpr ErrorName kHistoryReadErr = "HISTORY_READ_ERR";

struct HistoryStoreOptions {
  // Seconds since 1970. Default: the installed platform::Clock, else the
  // system clock.
  std::function<double()> clock;
  // A query returns at most this many samples; longer series are averaged
  // into this many buckets.
  size_t max_points = 600;
  // Updates between two roll-up passes (the first update always runs one).
  int prune_every = 360;
};

// Opens, creating when needed (with missing parent directories), the
// database at path, a real file-system path. A file that is not a usable
// database is moved aside to path + ".corrupt" and a new one is started.
// Returns nullptr with *error set when the database cannot be opened.
//
// get(variant, time_scale, ...): samples whose time lies within the last
// time_scale seconds (or later), oldest first, each a dictionary
// {"t": seconds since 1970, "v1".."v18": number, or "" where the value was
// missing}. variant may name the value keys to return: one key ("v1"), a
// comma-separated list ("v1,v15") or an array of keys; anything that names
// no key returns all eighteen. A time scale that is not a number, or is
// negative, matches no sample; larger than a century counts as a century.
std::unique_ptr<platform::HistoryService> open_history_store(const std::string& path, HistoryStoreOptions options = {},
                                                             std::string* error = nullptr);

}  // namespace hubwardend
