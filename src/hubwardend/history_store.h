// The host's history service: one SQLite database that keeps the module's
// load samples (eighteen values per idle pass) and answers time-span
// queries with them.
//
// Samples are consolidated into tiers as they are stored (history_tiers.h):
// ten-second points for the last hour, one-minute points for the last day,
// fifteen-minute points for the last week, hourly points for the last
// thirty days and daily points for a year; older points are dropped. A
// query returns each stretch of the past from one tier, so it returns at
// most kMaxHistoryPoints points whatever its time scale, and a short span
// reads exactly the same points from a long query as from a short one.
//
// The file carries a schema version (PRAGMA user_version). Opening brings
// an older layout up to date in one transaction, keeping every stored
// sample; a file written by a newer host is left untouched and not opened. The database runs in WAL mode with
// synchronous=NORMAL: a crash loses at most the sample being written, never what was committed before.
//
// Safe to call from several threads (one connection behind a mutex).
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "hubwardend/history_tiers.h"
#include "platform/host_services.h"

namespace hubwardend {

// Where the host keeps the database, relative to the platform root.
inline constexpr const char* kHistoryDatabasePath = "/var/db/hubwarden/history.sqlite3";

inline constexpr ErrorName kHistoryWriteErr = "HISTORY_WRITE_ERR";
inline constexpr ErrorName kHistoryReadErr = "HISTORY_READ_ERR";

// The schema version this host writes and understands.
inline constexpr int kHistorySchemaVersion = 2;

// The most points one query returns: 366 + 1,394 + 579 + 575 + 335.
inline constexpr int64_t kMaxHistoryPoints = history::max_points_in_all_tiers();
static_assert(kMaxHistoryPoints == 3249, "update the bound stated above");

struct HistoryStoreOptions {
  // Seconds since 1970. Default: the installed platform::Clock, else the
  // system clock.
  std::function<double()> clock;
  // Updates between two passes that drop points no tier answers for any
  // more (the first update always runs one).
  int prune_every = 360;
};

// Opens, creating when needed (with missing parent directories), the
// database at path, a real file-system path, and brings its schema up to
// date. A file that is not a usable database is moved aside, with its WAL,
// to a name of its own, path + ".corrupt-<UTC time>" (then "-2", "-3", ...
// when that name is taken; an earlier set-aside is never overwritten), and
// a new one is started. Returns nullptr with *error set when the database
// cannot be opened or migrated (nothing is changed then), or when its
// schema version is newer than kHistorySchemaVersion.
//
// get(variant, time_scale, ...): points whose time lies within the last
// time_scale seconds, up to the end of the bucket now being filled, oldest
// first, each a dictionary {"t": end of the point's bucket in seconds since
// 1970, "v1".."v18": the rounded average of the values the bucket's
// samples had, or "" where none had one}. variant may name the value keys
// to return: one key ("v1"), a comma-separated list ("v1,v15") or an array
// of keys; anything that names no key returns all eighteen. A time scale
// that is not a number, or is negative, matches no point; larger than a
// century counts as a century. Points stamped later than the bucket being
// filled (a clock set back) are kept but not returned until their time.
std::unique_ptr<platform::HistoryService> open_history_store(const std::string& path, HistoryStoreOptions options = {},
                                                             std::string* error = nullptr);

}  // namespace hubwardend
