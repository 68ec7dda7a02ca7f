// The SQLite history service: samples folded into consolidation tiers,
// tier-by-tier time-span queries, schema migrations, and the pruning that
// keeps the database bounded.
#include "hubwardend/history_store.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <sqlite3.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <limits>
#include <mutex>
#include <string_view>
#include <vector>

#include "platform/clock.h"
#include "platform/file_util.h"
#include "platform/log.h"
#include "platform/registry.h"
#include "platform/root_fs.h"
#include "platform/unique_fd.h"

namespace hubwardend {

namespace {

using history::kTierCount;

constexpr int kValueCount = 18;
constexpr double kLongestTimeScale = 100.0 * 365 * history::kDay;
// Far enough for any clock, near enough that bucket arithmetic cannot
// overflow.
constexpr int64_t kFarthestSecond = int64_t{1} << 50;

// Column lists spelled out by the preprocessor, so that every statement
// below is one literal.
#define HW_EACH_VALUE(X) \
  X(1) X(2) X(3) X(4) X(5) X(6) X(7) X(8) X(9) X(10) X(11) X(12) X(13) X(14) X(15) X(16) X(17) X(18)
#define HW_OLD_VALUE_DECL(n) ", v" #n " INTEGER"
#define HW_SUM_DECL(n) ", s" #n " INTEGER"
#define HW_COUNT_DECL(n) ", c" #n " INTEGER NOT NULL DEFAULT 0"
#define HW_SUM(n) ", s" #n
#define HW_COUNT(n) ", c" #n
#define HW_PARAM(n) ", :v" #n
#define HW_PARAM_PRESENT(n) ", :v" #n " IS NOT NULL"
#define HW_ADD_SUM(n) ", s" #n " = coalesce(s" #n " + excluded.s" #n ", s" #n ", excluded.s" #n ")"
#define HW_ADD_COUNT(n) ", c" #n " = c" #n " + excluded.c" #n
#define HW_OLD_SUM(n) ", CASE WHEN COUNT(v" #n ") > 0 THEN CAST(TOTAL(v" #n ") AS INTEGER) END"
#define HW_OLD_COUNT(n) ", COUNT(v" #n ")"

// Every statement the store runs, by id. Schema scripts run whole; the
// others are prepared one at a time.
enum class Sql : int {
  kConfigure,
  kReadVersion,
  kBegin,
  kCommit,
  kRollback,
  kCreateSampleTable,
  kCreatePointTable,
  kFoldSamplesIntoPoints,
  kDropSampleTable,
  kAddSample,
  kSelectTier,
  kPruneTier,
  kCount,
};

struct SqlText {
  Sql id;
  const char* text;
};

// A point of the tiers: sums and counts per value, not averages, so that
// folding in one more sample keeps every average exact. A value is summed
// and counted only where a sample had it.
// clang-format off
constexpr SqlText kSql[] = {
    {Sql::kConfigure, "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;"},
    {Sql::kReadVersion, "PRAGMA user_version"},
    {Sql::kBegin, "BEGIN IMMEDIATE"},
    {Sql::kCommit, "COMMIT"},
    {Sql::kRollback, "ROLLBACK"},
    // Version 1, the layout before tiers: one row per sample (span 0) or
    // per rolled-up average over span seconds starting at t. A new file
    // passes through it so that there is one upgrade path.
    {Sql::kCreateSampleTable,
     "CREATE TABLE IF NOT EXISTS samples (t INTEGER NOT NULL, span INTEGER NOT NULL DEFAULT 0"
         HW_EACH_VALUE(HW_OLD_VALUE_DECL) ");"
     "PRAGMA user_version = 1;"},
    // Version 2: the consolidation tiers.
    {Sql::kCreatePointTable,
     "CREATE TABLE points (tier INTEGER NOT NULL, t INTEGER NOT NULL, n INTEGER NOT NULL"
         HW_EACH_VALUE(HW_SUM_DECL) HW_EACH_VALUE(HW_COUNT_DECL) ","
     " PRIMARY KEY (tier, t)) WITHOUT ROWID"},
    // ?1..?5: the tiers' steps. An old row counts as one sample taken in
    // the middle of the span it covers.
    {Sql::kFoldSamplesIntoPoints,
     "INSERT INTO points(tier, t, n" HW_EACH_VALUE(HW_SUM) HW_EACH_VALUE(HW_COUNT) ")"
     " SELECT tiers.column1,"
     " ((samples.t + samples.span / 2 + tiers.column2 - 1) / tiers.column2) * tiers.column2,"
     " COUNT(*)" HW_EACH_VALUE(HW_OLD_SUM) HW_EACH_VALUE(HW_OLD_COUNT)
     " FROM samples, (VALUES (0, ?1), (1, ?2), (2, ?3), (3, ?4), (4, ?5)) AS tiers"
     " GROUP BY 1, 2"},
    {Sql::kDropSampleTable, "DROP TABLE samples; PRAGMA user_version = 2;"},
    // ?1..?5: the bucket ends of the sample in each tier; :v1..:v18 its
    // values, NULL where missing.
    {Sql::kAddSample,
     "WITH ends(tier, t) AS (VALUES (0, ?1), (1, ?2), (2, ?3), (3, ?4), (4, ?5))"
     " INSERT INTO points(tier, t, n" HW_EACH_VALUE(HW_SUM) HW_EACH_VALUE(HW_COUNT) ")"
     " SELECT tier, t, 1" HW_EACH_VALUE(HW_PARAM) HW_EACH_VALUE(HW_PARAM_PRESENT) " FROM ends WHERE true"
     " ON CONFLICT(tier, t) DO UPDATE SET n = n + 1" HW_EACH_VALUE(HW_ADD_SUM) HW_EACH_VALUE(HW_ADD_COUNT)},
    // ?1 tier, bucket ends in (?2, ?3] and not before ?4.
    {Sql::kSelectTier,
     "SELECT t" HW_EACH_VALUE(HW_SUM) HW_EACH_VALUE(HW_COUNT) " FROM points"
     " WHERE tier = ?1 AND t > ?2 AND t <= ?3 AND t >= ?4 ORDER BY t"},
    {Sql::kPruneTier, "DELETE FROM points WHERE tier = ?1 AND t <= ?2"},
};
// clang-format on
#undef HW_EACH_VALUE
#undef HW_OLD_VALUE_DECL
#undef HW_SUM_DECL
#undef HW_COUNT_DECL
#undef HW_SUM
#undef HW_COUNT
#undef HW_PARAM
#undef HW_PARAM_PRESENT
#undef HW_ADD_SUM
#undef HW_ADD_COUNT
#undef HW_OLD_SUM
#undef HW_OLD_COUNT

constexpr bool ids_match_positions() {
  for (size_t i = 0; i < std::size(kSql); ++i)
    if (static_cast<size_t>(kSql[i].id) != i) return false;
  return true;
}
static_assert(std::size(kSql) == static_cast<size_t>(Sql::kCount), "one statement per id");
static_assert(ids_match_positions(), "statements must be listed in the order of their ids");
static_assert(kTierCount == 5, "the tier lists in the statements name five tiers");
static_assert(
    std::string_view(kSql[static_cast<size_t>(Sql::kDropSampleTable)].text).ends_with("PRAGMA user_version = 2;") &&
        kHistorySchemaVersion == 2,
    "the last upgrade step must set the version this host writes");

constexpr const char* sql(Sql id) { return kSql[static_cast<size_t>(id)].text; }

double system_now() {
  using namespace std::chrono;
  return duration<double>(system_clock::now().time_since_epoch()).count();
}

double now_from(const HistoryStoreOptions& options) {
  if (options.clock) return options.clock();
  if (platform::has<platform::Clock>()) return platform::get<platform::Clock>().now();
  return system_now();
}

int64_t whole_seconds(double t) {
  if (!(t == t)) return 0;
  if (t <= static_cast<double>(-kFarthestSecond)) return -kFarthestSecond;
  if (t >= static_cast<double>(kFarthestSecond)) return kFarthestSecond;
  return static_cast<int64_t>(std::floor(t));
}

// Which of v1..v18 a variant asks for; all of them when it names none.
std::vector<int> requested_columns(const plist::Value* variant) {
  std::vector<int> columns;
  auto add = [&](std::string_view key) {
    while (!key.empty() && key.front() == ' ') key.remove_prefix(1);
    while (!key.empty() && key.back() == ' ') key.remove_suffix(1);
    if (key.size() < 2 || key.size() > 3 || key[0] != 'v') return;
    int n = 0;
    for (char c : key.substr(1)) {
      if (c < '0' || c > '9') return;
      n = n * 10 + (c - '0');
    }
    if (n < 1 || n > kValueCount) return;
    if (std::find(columns.begin(), columns.end(), n) == columns.end()) columns.push_back(n);
  };
  if (variant) {
    if (const std::string* s = variant->as_string()) {
      std::string_view rest = *s;
      for (;;) {
        size_t comma = rest.find(',');
        add(rest.substr(0, comma));
        if (comma == std::string_view::npos) break;
        rest.remove_prefix(comma + 1);
      }
    } else if (const plist::Array* keys = variant->as_array()) {
      for (const plist::Value& key : *keys)
        if (const std::string* s = key.as_string()) add(*s);
    }
  }
  if (columns.empty())
    for (int n = 1; n <= kValueCount; ++n) columns.push_back(n);
  return columns;
}

void log_failure(const std::string& line) {
  if (platform::has<platform::Log>()) platform::log_error("hubwardend: history: " + line);
}

void log_notice(const std::string& line) {
  if (platform::has<platform::Log>()) platform::log_notice("hubwardend: history: " + line);
}

bool is_damage(int rc) { return (rc & 0xff) == SQLITE_NOTADB || (rc & 0xff) == SQLITE_CORRUPT; }

class Prepared {
 public:
  Prepared() = default;
  Prepared(const Prepared&) = delete;
  Prepared& operator=(const Prepared&) = delete;
  ~Prepared() { finalize(); }

  void finalize() {
    sqlite3_finalize(stmt_);
    stmt_ = nullptr;
  }

  int prepare(sqlite3* db, Sql id, unsigned flags = 0) {
    return sqlite3_prepare_v3(db, sql(id), -1, flags, &stmt_, nullptr);
  }
  sqlite3_stmt* get() const { return stmt_; }
  // Runs a statement that returns no rows; SQLITE_DONE on success.
  int run() {
    int rc = sqlite3_step(stmt_);
    sqlite3_reset(stmt_);
    return rc;
  }

 private:
  sqlite3_stmt* stmt_ = nullptr;
};

// Resets a statement when a query scope ends, however it ends.
class ResetOnExit {
 public:
  explicit ResetOnExit(sqlite3_stmt* s) : s_(s) {}
  ~ResetOnExit() { sqlite3_reset(s_); }

 private:
  sqlite3_stmt* s_;
};

// The rounded average of value n of the point the statement is on, or ""
// when no sample of the point had the value.
plist::Value average_of(sqlite3_stmt* point, int n) {
  int64_t count = sqlite3_column_int64(point, kValueCount + n);
  int type = sqlite3_column_type(point, n);
  if (count <= 0 || type == SQLITE_NULL) return plist::Value("");
  if (type == SQLITE_INTEGER) {
    __int128 sum = std::max<int64_t>(sqlite3_column_int64(point, n), 0);
    return plist::Value(static_cast<uint64_t>((sum + count / 2) / count));
  }
  // SQLite turns a sum that outgrows 64 bits into a real.
  double average = sqlite3_column_double(point, n) / static_cast<double>(count);
  if (!(average > 0)) return plist::Value(uint64_t{0});
  if (average >= 18446744073709551615.0) return plist::Value(std::numeric_limits<uint64_t>::max());
  return plist::Value(static_cast<uint64_t>(average + 0.5));
}

class HistoryStore : public platform::HistoryService {
 public:
  HistoryStore(sqlite3* db, HistoryStoreOptions options) : db_(db), options_(std::move(options)) {}
  ~HistoryStore() override {
    // Statements must be finalized before the connection closes.
    for (Prepared& p : prepared_) p.finalize();
    sqlite3_close(db_);
  }

  bool prepare(std::string* error) {
    for (Sql id : {Sql::kBegin, Sql::kCommit, Sql::kRollback, Sql::kAddSample, Sql::kSelectTier, Sql::kPruneTier}) {
      if (prepared_[static_cast<size_t>(id)].prepare(db_, id, SQLITE_PREPARE_PERSISTENT) != SQLITE_OK) {
        if (error) *error = sqlite3_errmsg(db_);
        return false;
      }
    }
    for (int n = 1; n <= kValueCount; ++n)
      value_params_[n - 1] = sqlite3_bind_parameter_index(stmt(Sql::kAddSample), (":v" + std::to_string(n)).c_str());
    return true;
  }

  ErrorName update(const plist::Array& sample, plist::Dict*) override {
    std::lock_guard<std::mutex> lock(mu_);
    int64_t now = whole_seconds(now_from(options_));
    sqlite3_stmt* add = stmt(Sql::kAddSample);
    ResetOnExit reset(add);
    for (size_t k = 0; k < kTierCount; ++k)
      sqlite3_bind_int64(add, static_cast<int>(k) + 1, history::bucket_end(k, now));
    for (int i = 0; i < kValueCount; ++i) {
      const plist::Value* v = static_cast<size_t>(i) < sample.size() ? &sample[static_cast<size_t>(i)] : nullptr;
      std::optional<uint64_t> n = v && v->is_number() ? v->to_uint64() : std::nullopt;
      if (n) {
        // SQLite integers are signed; no meter comes near the limit.
        uint64_t clamped = std::min<uint64_t>(*n, static_cast<uint64_t>(std::numeric_limits<int64_t>::max()));
        sqlite3_bind_int64(add, value_params_[i], static_cast<int64_t>(clamped));
      } else {
        sqlite3_bind_null(add, value_params_[i]);
      }
    }
    if (sqlite3_step(add) != SQLITE_DONE) {
      log_failure(std::string("cannot store a sample: ") + sqlite3_errmsg(db_));
      return kHistoryWriteErr;
    }
    if (--updates_until_prune_ <= 0) {
      updates_until_prune_ = options_.prune_every;
      prune(now);
    }
    return nullptr;
  }

  ErrorName get(const plist::Value* variant, const plist::Value& time_scale, std::optional<plist::Array>* samples,
                plist::Dict*) override {
    samples->reset();
    std::optional<double> scale = time_scale.is_number() ? time_scale.to_double() : std::nullopt;
    if (!scale || !(*scale >= 0)) return nullptr;
    std::vector<int> columns = requested_columns(variant);
    static const std::vector<std::string> kKeys = [] {
      std::vector<std::string> keys;
      for (int n = 0; n <= kValueCount; ++n) keys.push_back("v" + std::to_string(n));
      return keys;
    }();

    std::lock_guard<std::mutex> lock(mu_);
    int64_t now = whole_seconds(now_from(options_));
    // Points carry whole seconds, so the span is measured from the whole
    // second of now, as the module's server time is.
    int64_t since = whole_seconds(std::ceil(static_cast<double>(now) - std::min(*scale, kLongestTimeScale)));

    // At most one point per bucket of each tier's stretch since `since`.
    int64_t most = 0;
    for (size_t k = 0; k < kTierCount; ++k) {
      int64_t from = std::max(history::after(k, now), since - 1);
      most += std::max<int64_t>(history::through(k, now) - from, 0) / history::kTiers[k].step + 1;
    }
    plist::Array out;
    out.reserve(static_cast<size_t>(std::min(most, kMaxHistoryPoints)));
    sqlite3_stmt* query = stmt(Sql::kSelectTier);
    for (size_t k = kTierCount; k-- > 0;) {
      int64_t through = history::through(k, now);
      if (since > through) continue;
      ResetOnExit reset(query);
      sqlite3_bind_int64(query, 1, static_cast<int64_t>(k));
      sqlite3_bind_int64(query, 2, history::after(k, now));
      sqlite3_bind_int64(query, 3, through);
      sqlite3_bind_int64(query, 4, since);
      int rc;
      while ((rc = sqlite3_step(query)) == SQLITE_ROW) {
        plist::Dict point;
        point.reserve(columns.size() + 1);
        point.set("t", plist::Value(static_cast<int64_t>(sqlite3_column_int64(query, 0))));
        for (int n : columns) point.set(kKeys[static_cast<size_t>(n)], average_of(query, n));
        out.push_back(std::move(point));
      }
      if (rc != SQLITE_DONE) return read_failed();
    }
    if (!out.empty()) *samples = std::move(out);
    return nullptr;
  }

 private:
  sqlite3_stmt* stmt(Sql id) { return prepared_[static_cast<size_t>(id)].get(); }

  ErrorName read_failed() {
    log_failure(std::string("cannot read samples: ") + sqlite3_errmsg(db_));
    return kHistoryReadErr;
  }

  // Drops the points no tier answers for any more. Coarser tiers hold the
  // same samples, so only the last tier's cut loses anything.
  void prune(int64_t now) {
    if (now < history::kRetention) return;  // a clock this far off would erase everything
    if (prepared_[static_cast<size_t>(Sql::kBegin)].run() != SQLITE_DONE) return;
    bool ok = true;
    sqlite3_stmt* remove = stmt(Sql::kPruneTier);
    for (size_t k = 0; ok && k < kTierCount; ++k) {
      ResetOnExit reset(remove);
      sqlite3_bind_int64(remove, 1, static_cast<int64_t>(k));
      sqlite3_bind_int64(remove, 2, history::after(k, now));
      ok = sqlite3_step(remove) == SQLITE_DONE;
    }
    if (ok && prepared_[static_cast<size_t>(Sql::kCommit)].run() == SQLITE_DONE) return;
    log_failure(std::string("cannot drop old points: ") + sqlite3_errmsg(db_));
    prepared_[static_cast<size_t>(Sql::kRollback)].run();
  }

  sqlite3* db_;
  HistoryStoreOptions options_;
  std::mutex mu_;
  Prepared prepared_[static_cast<size_t>(Sql::kCount)];
  int value_params_[kValueCount] = {};
  int updates_until_prune_ = 0;
};

int read_version(sqlite3* db, int* version) {
  Prepared read;
  int rc = read.prepare(db, Sql::kReadVersion);
  if (rc != SQLITE_OK) return rc;
  rc = sqlite3_step(read.get());
  if (rc != SQLITE_ROW) return rc;
  *version = sqlite3_column_int(read.get(), 0);
  return SQLITE_OK;
}

// Brings the schema from version - 1 to version, inside the caller's
// transaction. Returns an SQLite result code.
int upgrade_to(sqlite3* db, int version) {
  switch (version) {
    case 1:
      return sqlite3_exec(db, sql(Sql::kCreateSampleTable), nullptr, nullptr, nullptr);
    case 2: {
      int rc = sqlite3_exec(db, sql(Sql::kCreatePointTable), nullptr, nullptr, nullptr);
      if (rc != SQLITE_OK) return rc;
      Prepared fold;
      if ((rc = fold.prepare(db, Sql::kFoldSamplesIntoPoints)) != SQLITE_OK) return rc;
      for (size_t k = 0; k < kTierCount; ++k)
        sqlite3_bind_int64(fold.get(), static_cast<int>(k) + 1, history::kTiers[k].step);
      if ((rc = fold.run()) != SQLITE_DONE) return rc;
      return sqlite3_exec(db, sql(Sql::kDropSampleTable), nullptr, nullptr, nullptr);
    }
  }
  return SQLITE_INTERNAL;
}

enum class Opened {
  kReady,    // *db is usable at the current schema version
  kDamaged,  // the file is not a database, or a damaged one
  kNewer,    // written by a newer host; left as it was
  kFailed,   // any other failure; nothing was changed
};

Opened classify(int rc) { return is_damage(rc) ? Opened::kDamaged : Opened::kFailed; }

// All steps run in one transaction, so a failure or a crash leaves the
// file as it was. The version is read again under the write lock because
// another process may have upgraded the file meanwhile.
Opened upgrade(sqlite3* db, int version, std::string* error) {
  int from = version;
  int rc = sqlite3_exec(db, sql(Sql::kBegin), nullptr, nullptr, nullptr);
  if (rc == SQLITE_OK) rc = read_version(db, &version);
  for (int next = version + 1; rc == SQLITE_OK && next <= kHistorySchemaVersion; ++next) {
    rc = upgrade_to(db, next);
    if (rc == SQLITE_DONE) rc = SQLITE_OK;
  }
  if (rc == SQLITE_OK) rc = read_version(db, &version);
  if (rc == SQLITE_OK && version != kHistorySchemaVersion) rc = SQLITE_INTERNAL;  // a step forgot its version
  if (rc == SQLITE_OK) rc = sqlite3_exec(db, sql(Sql::kCommit), nullptr, nullptr, nullptr);
  if (rc != SQLITE_OK) {
    *error = "cannot upgrade from version " + std::to_string(from) + ": " + sqlite3_errmsg(db);
    sqlite3_exec(db, sql(Sql::kRollback), nullptr, nullptr, nullptr);
    return classify(rc);
  }
  log_notice("upgraded the database from version " + std::to_string(from) + " to " + std::to_string(version));
  return Opened::kReady;
}

// Where the database lives. Under a sandbox root the folder is opened
// inside the root, and SQLite is handed that folder's real location with
// links refused, so neither a linked folder nor a linked database file (nor
// the -wal and -shm files beside it) can lead outside the root.
struct DatabaseFile {
  std::string path;        // as given, for messages
  std::string leaf;        // the file's name within dir
  platform::UniqueFd dir;  // the folder that holds it
  std::string open_path;   // what SQLite opens
  bool no_links = false;   // SQLite must refuse links on open_path
};

// Real location of an open descriptor, "" when /proc cannot tell.
std::string real_location(int fd) {
  char buf[PATH_MAX];
  std::string link = "/proc/self/fd/" + std::to_string(fd);
  ssize_t n = ::readlink(link.c_str(), buf, sizeof buf);
  if (n <= 0 || static_cast<size_t>(n) >= sizeof buf || buf[0] != '/') return "";
  return std::string(buf, static_cast<size_t>(n));
}

// Opens (creating) the folder of path. False with *error set when it cannot
// be made, or lies outside the sandbox root.
bool locate_database(const std::string& path, DatabaseFile* file, std::string* error) {
  file->path = path;
  file->dir.reset(platform::open_parent_confined(path, /*create_parents=*/true, &file->leaf));
  if (!file->dir.valid()) {
    *error = "cannot open the folder of " + path + ": " + std::strerror(errno);
    return false;
  }
  std::string root, relative;
  if (!platform::confined_to_root(path, &root, &relative)) {
    file->open_path = path;
    return true;
  }
  std::string folder = real_location(file->dir.get());
  char real_root[PATH_MAX];
  bool inside = !folder.empty() && ::realpath(root.c_str(), real_root) != nullptr;
  if (inside) {
    std::string_view r(real_root);
    inside =
        r == "/" || (folder.compare(0, r.size(), r) == 0 && (folder.size() == r.size() || folder[r.size()] == '/'));
  }
  if (!inside) {
    *error = "the folder of " + path + " is not inside the sandbox root";
    return false;
  }
  file->open_path = (folder == "/" ? folder : folder + "/") + file->leaf;
  file->no_links = true;
  return true;
}

// Opens the connection and brings the schema up to date. *db is set, to a
// handle the caller closes whatever the outcome. A file from a newer host
// is recognised before anything is written to it.
Opened open_database(const DatabaseFile& file, sqlite3** db, std::string* error) {
  int version = 0;
  int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
  if (file.no_links) flags |= SQLITE_OPEN_NOFOLLOW;
  int rc = sqlite3_open_v2(file.open_path.c_str(), db, flags, nullptr);
  if (rc == SQLITE_OK) {
    sqlite3_busy_timeout(*db, 5000);
    rc = read_version(*db, &version);
  }
  if (rc == SQLITE_OK && version > kHistorySchemaVersion) {
    *error = "the database is at version " + std::to_string(version) + ", newer than this host's " +
             std::to_string(kHistorySchemaVersion) + "; left as it is";
    return Opened::kNewer;
  }
  if (rc == SQLITE_OK) rc = sqlite3_exec(*db, sql(Sql::kConfigure), nullptr, nullptr, nullptr);
  if (rc != SQLITE_OK) {
    *error = *db ? sqlite3_errmsg(*db) : sqlite3_errstr(rc);
    return classify(rc);
  }
  return version == kHistorySchemaVersion ? Opened::kReady : upgrade(*db, version, error);
}

// Renames an entry of dir without ever replacing an existing file.
bool move_without_replacing(int dir, const std::string& from, const std::string& to) {
  if (::renameat2(dir, from.c_str(), dir, to.c_str(), RENAME_NOREPLACE) == 0) return true;
  if (errno != EINVAL && errno != ENOSYS) return false;
  // A file system without the flag: a hard link fails on an existing name.
  if (::linkat(dir, from.c_str(), dir, to.c_str(), 0) != 0) return false;
  ::unlinkat(dir, from.c_str(), 0);
  return true;
}

// Moves a damaged database to a name no earlier set-aside has, with its
// WAL. Returns the new name, or "" when the file could not be moved.
std::string set_aside(const DatabaseFile& file, double now) {
  const std::string& path = file.path;
  const std::string& leaf = file.leaf;
  const int dir = file.dir.get();
  time_t seconds = static_cast<time_t>(whole_seconds(now));
  struct tm utc = {};
  char stamp[32] = "unknown-time";
  if (::gmtime_r(&seconds, &utc)) ::strftime(stamp, sizeof stamp, "%Y%m%dT%H%M%SZ", &utc);
  std::string base = leaf + ".corrupt-" + stamp;
  for (int n = 1; n <= 1000; ++n) {
    std::string target = n == 1 ? base : base + "-" + std::to_string(n);
    if (move_without_replacing(dir, leaf, target)) {
      // A WAL left beside a new database would be replayed into it.
      if (!move_without_replacing(dir, leaf + "-wal", target + "-wal")) ::unlinkat(dir, (leaf + "-wal").c_str(), 0);
      ::unlinkat(dir, (leaf + "-shm").c_str(), 0);
      return path.substr(0, path.size() - leaf.size()) + target;
    }
    if (errno != EEXIST) return "";
  }
  return "";
}

}  // namespace

std::unique_ptr<platform::HistoryService> open_history_store(const std::string& path, HistoryStoreOptions options,
                                                             std::string* error) {
  std::string why;
  DatabaseFile file;
  if (!locate_database(path, &file, &why)) {
    if (error) *error = why;
    return nullptr;
  }
  sqlite3* db = nullptr;
  Opened opened = open_database(file, &db, &why);
  if (opened == Opened::kDamaged) {
    // History is a convenience; a damaged file must not keep the host from
    // recording. It is kept aside for whoever wants to look at it.
    sqlite3_close(db);
    db = nullptr;
    std::string aside = set_aside(file, now_from(options));
    if (aside.empty()) {
      why = "damaged database cannot be moved aside: " + why;
    } else {
      log_failure("damaged database moved to " + aside + " (" + why + ")");
      opened = open_database(file, &db, &why);
    }
  }
  if (opened != Opened::kReady) {
    if (error) *error = why;
    sqlite3_close(db);
    return nullptr;
  }
  auto store = std::make_unique<HistoryStore>(db, std::move(options));
  if (!store->prepare(error)) return nullptr;
  return store;
}

}  // namespace hubwardend
