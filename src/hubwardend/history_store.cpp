// The SQLite history service: storage of load samples, time-span queries
// with thinning, and the roll-up that keeps the database bounded.
#include "hubwardend/history_store.h"

#include <sqlite3.h>
#include <stdio.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <limits>
#include <mutex>
#include <string_view>
#include <vector>

#include "platform/clock.h"
#include "platform/file_util.h"
#include "platform/log.h"
#include "platform/registry.h"

namespace hubwardend {

namespace {

constexpr int kValueCount = 18;
constexpr int64_t kMinute = 60;
constexpr int64_t kHour = 3600;
constexpr int64_t kDay = 86400;
constexpr int64_t kFullResolutionAge = 7 * kDay;
constexpr int64_t kMinuteResolutionAge = 30 * kDay;
constexpr int64_t kRetention = 365 * kDay;
constexpr double kLongestTimeScale = 100.0 * 365 * kDay;

// ", v1, v2, ..." or, averaged, ", <rounded average of v1>, ...".
std::string value_columns(bool averaged) {
  std::string out;
  for (int n = 1; n <= kValueCount; ++n) {
    std::string column = "v" + std::to_string(n);
    // The values are non-negative integers; round the average to one.
    out += averaged ? ", CAST(AVG(" + column + ") + 0.5 AS INTEGER)" : ", " + column;
  }
  return out;
}

std::string schema_sql() {
  std::string columns;
  for (int n = 1; n <= kValueCount; ++n) columns += ", v" + std::to_string(n) + " INTEGER";
  // span is 0 for a single sample, else the width in seconds of the
  // interval that the row averages.
  return "CREATE TABLE IF NOT EXISTS samples (t INTEGER NOT NULL, span INTEGER NOT NULL DEFAULT 0" + columns +
         ");"
         "CREATE INDEX IF NOT EXISTS samples_by_time ON samples(t);"
         "CREATE INDEX IF NOT EXISTS samples_by_span ON samples(span, t);";
}

std::string insert_sql() {
  std::string params;
  for (int n = 1; n <= kValueCount; ++n) params += ", ?" + std::to_string(n + 1);
  return "INSERT INTO samples(t, span" + value_columns(false) + ") VALUES(?1, 0" + params + ")";
}

// Rows of resolution `from` older than ?1 become averages over `width`.
std::string rollup_sql(int64_t from, int64_t width) {
  std::string w = std::to_string(width);
  return "INSERT INTO samples(t, span" + value_columns(false) + ") SELECT (t / " + w + ") * " + w + ", " + w +
         value_columns(true) + " FROM samples WHERE span = " + std::to_string(from) + " AND t < ?1 GROUP BY t / " + w;
}

double system_now() {
  using namespace std::chrono;
  return duration<double>(system_clock::now().time_since_epoch()).count();
}

int64_t floor_to(int64_t t, int64_t unit) { return t - ((t % unit) + unit) % unit; }

int64_t whole_seconds(double t) {
  if (!(t == t)) return 0;
  if (t <= static_cast<double>(std::numeric_limits<int64_t>::min())) return std::numeric_limits<int64_t>::min();
  if (t >= static_cast<double>(std::numeric_limits<int64_t>::max())) return std::numeric_limits<int64_t>::max();
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
    for (int existing : columns)
      if (existing == n) return;
    columns.push_back(n);
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

class Statement {
 public:
  Statement() = default;
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;
  ~Statement() { sqlite3_finalize(stmt_); }

  bool prepare(sqlite3* db, const std::string& sql) {
    return sqlite3_prepare_v3(db, sql.c_str(), -1, SQLITE_PREPARE_PERSISTENT, &stmt_, nullptr) == SQLITE_OK;
  }
  sqlite3_stmt* get() const { return stmt_; }
  // Runs a statement that returns no rows; true on success.
  bool run() {
    int rc = sqlite3_step(stmt_);
    sqlite3_reset(stmt_);
    return rc == SQLITE_DONE;
  }

 private:
  sqlite3_stmt* stmt_ = nullptr;
};

// Resets a statement when a query scope ends, however it ends.
class ResetOnExit {
 public:
  explicit ResetOnExit(sqlite3_stmt* s) : s_(s) {}
  ~ResetOnExit() {
    sqlite3_reset(s_);
    sqlite3_clear_bindings(s_);
  }

 private:
  sqlite3_stmt* s_;
};

class HistoryStore : public platform::HistoryService {
 public:
  HistoryStore(sqlite3* db, HistoryStoreOptions options)
      : db_(db), options_(std::move(options)), updates_until_prune_(0) {
    if (options_.max_points == 0) options_.max_points = 1;
  }
  ~HistoryStore() override {
    // Statements must be finalized before the connection closes.
    statements_.clear();
    sqlite3_close(db_);
  }

  bool prepare(std::string* error) {
    const std::string sql[] = {
        insert_sql(),
        "SELECT COUNT(*), MIN(t), MAX(t) FROM samples WHERE t >= ?1",
        "SELECT t" + value_columns(false) + " FROM samples WHERE t >= ?1 ORDER BY t",
        "SELECT CAST(AVG(t) AS INTEGER)" + value_columns(true) +
            " FROM samples WHERE t >= ?1 GROUP BY (t - ?2) / ?3 ORDER BY MIN(t)",
        rollup_sql(0, kMinute),
        "DELETE FROM samples WHERE span = 0 AND t < ?1",
        rollup_sql(kMinute, kHour),
        "DELETE FROM samples WHERE span = " + std::to_string(kMinute) + " AND t < ?1",
        "DELETE FROM samples WHERE t < ?1",
        "BEGIN IMMEDIATE",
        "COMMIT",
        "ROLLBACK",
    };
    for (const std::string& s : sql) {
      statements_.push_back(std::make_unique<Statement>());
      if (!statements_.back()->prepare(db_, s)) {
        if (error) *error = sqlite3_errmsg(db_);
        return false;
      }
    }
    return true;
  }

  ErrorName update(const plist::Array& sample, plist::Dict*) override {
    std::lock_guard<std::mutex> lock(mu_);
    int64_t now = whole_seconds(now_seconds());
    sqlite3_stmt* insert = stmt(kInsert);
    ResetOnExit reset(insert);
    sqlite3_bind_int64(insert, 1, now);
    for (int i = 0; i < kValueCount; ++i) {
      const plist::Value* v = static_cast<size_t>(i) < sample.size() ? &sample[static_cast<size_t>(i)] : nullptr;
      std::optional<uint64_t> n = v && v->is_number() ? v->to_uint64() : std::nullopt;
      if (n) {
        // SQLite integers are signed; no meter comes near the limit.
        uint64_t clamped = std::min<uint64_t>(*n, static_cast<uint64_t>(std::numeric_limits<int64_t>::max()));
        sqlite3_bind_int64(insert, i + 2, static_cast<int64_t>(clamped));
      } else {
        sqlite3_bind_null(insert, i + 2);
      }
    }
    if (sqlite3_step(insert) != SQLITE_DONE) {
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

    std::lock_guard<std::mutex> lock(mu_);
    double now = now_seconds();
    // Samples carry whole seconds, so the span is measured from the whole
    // second of now, as the module's server time is.
    int64_t since = whole_seconds(std::ceil(std::floor(now) - std::min(*scale, kLongestTimeScale)));

    int64_t count = 0, first = 0, last = 0;
    {
      sqlite3_stmt* range = stmt(kRange);
      ResetOnExit reset(range);
      sqlite3_bind_int64(range, 1, since);
      if (sqlite3_step(range) != SQLITE_ROW) return read_failed();
      count = sqlite3_column_int64(range, 0);
      first = sqlite3_column_int64(range, 1);
      last = sqlite3_column_int64(range, 2);
    }
    if (count == 0) return nullptr;

    sqlite3_stmt* query;
    int64_t max_points = static_cast<int64_t>(options_.max_points);
    if (count <= max_points) {
      query = stmt(kSelect);
      sqlite3_bind_int64(query, 1, since);
    } else {
      // Buckets are as wide as needed for the span actually covered, so
      // there are never more than max_points of them.
      uint64_t covered = static_cast<uint64_t>(last) - static_cast<uint64_t>(first) + 1;
      uint64_t width = (covered + static_cast<uint64_t>(max_points) - 1) / static_cast<uint64_t>(max_points);
      query = stmt(kSelectThinned);
      sqlite3_bind_int64(query, 1, since);
      sqlite3_bind_int64(query, 2, first);
      sqlite3_bind_int64(query, 3, static_cast<int64_t>(std::max<uint64_t>(width, 1)));
    }
    ResetOnExit reset(query);
    plist::Array out;
    out.reserve(static_cast<size_t>(std::min(count, max_points)));
    static const std::vector<std::string> kKeys = [] {
      std::vector<std::string> keys;
      for (int n = 0; n <= kValueCount; ++n) keys.push_back("v" + std::to_string(n));
      return keys;
    }();
    int rc;
    while ((rc = sqlite3_step(query)) == SQLITE_ROW) {
      plist::Dict sample;
      sample.set("t", plist::Value(static_cast<int64_t>(sqlite3_column_int64(query, 0))));
      for (int n : columns) {
        if (sqlite3_column_type(query, n) == SQLITE_NULL) {
          sample.set(kKeys[static_cast<size_t>(n)], plist::Value(""));
        } else {
          int64_t v = sqlite3_column_int64(query, n);
          sample.set(kKeys[static_cast<size_t>(n)], plist::Value(static_cast<uint64_t>(std::max<int64_t>(v, 0))));
        }
      }
      out.push_back(std::move(sample));
    }
    if (rc != SQLITE_DONE) return read_failed();
    if (!out.empty()) *samples = std::move(out);
    return nullptr;
  }

 private:
  enum StatementId {
    kInsert,
    kRange,
    kSelect,
    kSelectThinned,
    kRollupToMinutes,
    kDeleteRolledSamples,
    kRollupToHours,
    kDeleteRolledMinutes,
    kDeleteExpired,
    kBegin,
    kCommit,
    kRollback,
  };

  sqlite3_stmt* stmt(StatementId id) { return statements_[id]->get(); }

  double now_seconds() {
    if (options_.clock) return options_.clock();
    if (platform::has<platform::Clock>()) return platform::get<platform::Clock>().now();
    return system_now();
  }

  ErrorName read_failed() {
    log_failure(std::string("cannot read samples: ") + sqlite3_errmsg(db_));
    return kHistoryReadErr;
  }

  // Cut-offs are whole buckets, so no minute or hour is split between a
  // roll-up and the next one.
  void prune(int64_t now) {
    if (now < kRetention) return;  // a clock this far off would erase everything
    if (!statements_[kBegin]->run()) return;
    bool ok = run_with_cutoff(kRollupToMinutes, floor_to(now - kFullResolutionAge, kMinute)) &&
              run_with_cutoff(kDeleteRolledSamples, floor_to(now - kFullResolutionAge, kMinute)) &&
              run_with_cutoff(kRollupToHours, floor_to(now - kMinuteResolutionAge, kHour)) &&
              run_with_cutoff(kDeleteRolledMinutes, floor_to(now - kMinuteResolutionAge, kHour)) &&
              run_with_cutoff(kDeleteExpired, now - kRetention);
    if (ok && statements_[kCommit]->run()) return;
    log_failure(std::string("cannot roll up old samples: ") + sqlite3_errmsg(db_));
    statements_[kRollback]->run();
  }

  bool run_with_cutoff(StatementId id, int64_t cutoff) {
    sqlite3_stmt* s = stmt(id);
    ResetOnExit reset(s);
    sqlite3_bind_int64(s, 1, cutoff);
    return sqlite3_step(s) == SQLITE_DONE;
  }

  sqlite3* db_;
  HistoryStoreOptions options_;
  std::mutex mu_;
  std::vector<std::unique_ptr<Statement>> statements_;
  int updates_until_prune_;
};

// Opens the connection and brings the schema up to date. Returns the
// SQLite result code; *db is set (possibly to a failed handle to close).
int open_database(const std::string& path, sqlite3** db) {
  int rc = sqlite3_open_v2(path.c_str(), db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
  if (rc != SQLITE_OK) return rc;
  sqlite3_busy_timeout(*db, 5000);
  const std::string setup = "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL; " + schema_sql();
  return sqlite3_exec(*db, setup.c_str(), nullptr, nullptr, nullptr);
}

}  // namespace

std::unique_ptr<platform::HistoryService> open_history_store(const std::string& path, HistoryStoreOptions options,
                                                             std::string* error) {
  size_t slash = path.find_last_of('/');
  if (slash != std::string::npos && slash > 0) platform::make_directories(path.substr(0, slash), 0755);

  sqlite3* db = nullptr;
  int rc = open_database(path, &db);
  if (rc == SQLITE_NOTADB || rc == SQLITE_CORRUPT) {
    // History is a convenience; a damaged file must not keep the host from
    // recording. It is kept aside for whoever wants to look at it.
    sqlite3_close(db);
    db = nullptr;
    log_failure("damaged database moved to " + path + ".corrupt");
    ::rename(path.c_str(), (path + ".corrupt").c_str());
    ::remove((path + "-wal").c_str());
    ::remove((path + "-shm").c_str());
    rc = open_database(path, &db);
  }
  if (rc != SQLITE_OK) {
    if (error) *error = db ? sqlite3_errmsg(db) : sqlite3_errstr(rc);
    sqlite3_close(db);
    return nullptr;
  }
  auto store = std::make_unique<HistoryStore>(db, std::move(options));
  if (!store->prepare(error)) return nullptr;
  return store;
}

}  // namespace hubwardend
