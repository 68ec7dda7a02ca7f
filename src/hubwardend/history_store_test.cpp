#include "hubwardend/history_store.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <map>
#include <thread>

#include "monitor/monitor_test_support.h"
#include "platform/file_util.h"
#include "platform/linux/basics_test_support.h"
#include "plist/codec.h"
#include "request/operations.h"

namespace hubwardend {
namespace {

namespace fs = std::filesystem;
using history::kTierCount;
using history::kTiers;
using plist::Array;
using plist::Dict;
using plist::Value;

constexpr double kDay = 86400;
constexpr double kStart = 1.7e9;  // a multiple of ten seconds

Array sample(uint64_t first, uint64_t rest = 7) {
  Array s(18, Value(rest));
  s[0] = Value(first);
  for (size_t i = 10; i < 14; ++i) s[i] = Value("");
  return s;
}

// A sample the store was given, as a reference model of the tiers.
struct Taken {
  int64_t t;
  uint64_t v1;
  std::optional<uint64_t> v2;
};

// Stores eight days of samples ending at *clock: every 700 s, then every
// 50 s for the last day, then every 10 s for the last hour. The intervals
// do not divide the tiers' steps, so buckets hold differing numbers of
// samples, yet every bucket of every tier within the week holds some.
// Returns what was stored; *clock ends at the time of the last sample.
std::vector<Taken> store_eight_days(platform::HistoryService& store, double* clock) {
  double end = *clock;
  std::vector<Taken> taken;
  int64_t age = static_cast<int64_t>(8 * kDay);
  for (int i = 0; age >= 0; ++i) {
    *clock = end - static_cast<double>(age);
    Taken s{static_cast<int64_t>(std::floor(*clock)), static_cast<uint64_t>(i) * 37 % 10000, std::nullopt};
    if (i % 7 != 0) s.v2 = static_cast<uint64_t>(i) * 1000 + 5;
    Array values = sample(s.v1);
    values[1] = s.v2 ? Value(*s.v2) : Value("");
    EXPECT_EQ(store.update(values, nullptr), nullptr);
    taken.push_back(s);
    age -= age > kDay + 1200 ? 700 : age > 3900 ? 50 : 10;
  }
  *clock = end;
  return taken;
}

class HistoryStoreTest : public ::testing::Test {
 protected:
  std::unique_ptr<platform::HistoryService> open(HistoryStoreOptions options = {}) {
    options.clock = [this] { return now_; };
    std::string error;
    auto store = open_history_store(path_, options, &error);
    EXPECT_TRUE(store) << error;
    return store;
  }

  Array query(const Value& time_scale, const Value* variant = nullptr) {
    std::optional<Array> samples;
    EXPECT_EQ(store_->get(variant, time_scale, &samples, nullptr), nullptr);
    return samples.value_or(Array());
  }

  // Runs SQL on the file directly, as another program would; returns the
  // first column of the first row, or -1 without one.
  int64_t sql(const std::string& text) {
    sqlite3* db = nullptr;
    char* message = nullptr;
    int64_t first = -1;
    auto row = [](void* result, int, char** values, char**) {
      if (*static_cast<int64_t*>(result) == -1 && values[0]) *static_cast<int64_t*>(result) = std::atoll(values[0]);
      return 0;
    };
    EXPECT_EQ(sqlite3_open(path_.c_str(), &db), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(db, text.c_str(), row, &first, &message), SQLITE_OK) << (message ? message : "");
    sqlite3_free(message);
    sqlite3_close(db);
    return first;
  }

  std::vector<std::string> set_asides() {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(dir_.path("/db")))
      if (std::string name = entry.path().filename().string();
          name.rfind("history.sqlite3.corrupt-", 0) == 0 && !name.ends_with("-wal"))
        names.push_back(entry.path().string());
    std::sort(names.begin(), names.end());
    return names;
  }

  platform::testing::ScratchDir dir_;
  const std::string path_ = dir_.path("/db/history.sqlite3");
  double now_ = kStart;
  std::unique_ptr<platform::HistoryService> store_;  // closed before dir_ goes
};

int64_t t_of(const Value& point) { return *point.as_dict()->find("t")->to_int64(); }
const Value& value_of(const Value& point, const char* key) { return *point.as_dict()->find(key); }

TEST_F(HistoryStoreTest, SamplesComeBackWithTheirTimeAndOnlyTheAskedKeys) {
  store_ = open();
  ASSERT_EQ(store_->update(sample(100), nullptr), nullptr);
  now_ += 10.7;
  Array odd = sample(200);
  odd[1] = Value("");              // missing
  odd[2] = Value("not a number");  // stored as missing too
  odd.resize(17);                  // a short sample is padded
  ASSERT_EQ(store_->update(odd, nullptr), nullptr);

  Array all = query(Value(60));
  ASSERT_EQ(all.size(), 2u);
  const Dict& first = *all[0].as_dict();
  ASSERT_EQ(first.size(), 19u);
  EXPECT_EQ(first.at_index(0).first, "t");
  EXPECT_EQ(first.at_index(18).first, "v18");
  EXPECT_EQ(*first.find("t"), Value(int64_t{1700000000}));
  EXPECT_EQ(*first.find("v1"), Value(uint64_t{100}));
  EXPECT_EQ(*first.find("v11"), Value(""));
  const Dict& second = *all[1].as_dict();
  EXPECT_EQ(*second.find("t"), Value(int64_t{1700000010}));
  EXPECT_EQ(*second.find("v2"), Value(""));
  EXPECT_EQ(*second.find("v3"), Value(""));
  EXPECT_EQ(*second.find("v18"), Value(""));

  // Variants: one key, a list, an array; one that names nothing gets all.
  Value one("v1");
  EXPECT_EQ(query(Value(60), &one)[1], Value(Dict{{"t", int64_t{1700000010}}, {"v1", uint64_t{200}}}));
  Value list("v15, v1,bogus");
  EXPECT_EQ(query(Value(60), &list)[0],
            Value(Dict{{"t", int64_t{1700000000}}, {"v15", uint64_t{7}}, {"v1", uint64_t{100}}}));
  Value keys(Array{"v18", 3});
  EXPECT_EQ(query(Value(60), &keys)[0].as_dict()->size(), 2u);
  Value unknown("everything");
  EXPECT_EQ(query(Value(60), &unknown)[0].as_dict()->size(), 19u);

  // Time scales: the boundary is inclusive; negative and non-numbers match
  // nothing; a huge one is everything.
  now_ += 100;
  EXPECT_EQ(query(Value(100)).size(), 1u);
  EXPECT_EQ(query(Value(110.7)).size(), 2u);
  EXPECT_TRUE(query(Value(-1)).empty());
  EXPECT_TRUE(query(Value("60")).empty());
  EXPECT_TRUE(query(Value(std::nan(""))).empty());
  EXPECT_EQ(query(Value(1e300)).size(), 2u);
  EXPECT_EQ(query(Value(UINT64_MAX)).size(), 2u);
  std::optional<Array> none;
  now_ += 1000;
  EXPECT_EQ(store_->get(nullptr, Value(10), &none, nullptr), nullptr);
  EXPECT_FALSE(none);
}

TEST_F(HistoryStoreTest, TiersHoldExactBucketAveragesStampedWithTheirEnds) {
  store_ = open();
  std::vector<Taken> taken = store_eight_days(*store_, &now_);
  int64_t now = static_cast<int64_t>(std::floor(now_));

  // The reference: every tier's buckets summed from the samples themselves.
  struct Bucket {
    uint64_t v1_sum = 0, v1_count = 0, v2_sum = 0, v2_count = 0;
  };
  std::vector<std::map<int64_t, Bucket>> reference(kTierCount);
  for (const Taken& s : taken) {
    for (size_t k = 0; k < kTierCount; ++k) {
      int64_t step = kTiers[k].step;
      Bucket& b = reference[k][(s.t + step - 1) / step * step];
      b.v1_sum += s.v1;
      ++b.v1_count;
      if (s.v2) b.v2_sum += *s.v2, ++b.v2_count;
    }
  }
  auto rounded = [](uint64_t sum, uint64_t count) { return Value((sum + count / 2) / count); };

  Value variant("v1,v2");
  Array points = query(Value(8 * kDay), &variant);
  ASSERT_FALSE(points.empty());
  ASSERT_LE(static_cast<int64_t>(points.size()), kMaxHistoryPoints);
  size_t i = 0;
  int64_t since = now - static_cast<int64_t>(8 * kDay);
  for (size_t k = kTierCount; k-- > 0;) {
    size_t in_tier = 0;
    for (const auto& [end, b] : reference[k]) {
      if (end <= history::after(k, now) || end > history::through(k, now) || end < since) continue;
      ASSERT_LT(i, points.size()) << "tier " << k;
      const Value& point = points[i];
      ASSERT_EQ(t_of(point), end) << "tier " << k;
      EXPECT_EQ(value_of(point, "v1"), rounded(b.v1_sum, b.v1_count)) << end;
      EXPECT_EQ(value_of(point, "v2"), b.v2_count ? rounded(b.v2_sum, b.v2_count) : Value("")) << end;
      // Evenly spaced: the schedule leaves no bucket of the week empty.
      if (in_tier > 0) {
        EXPECT_EQ(end - t_of(points[i - 1]), kTiers[k].step) << "tier " << k;
      }
      ++i;
      ++in_tier;
    }
    if (k + 1 < kTierCount) {
      EXPECT_GT(in_tier, 0u) << "tier " << k;  // nothing is a month old
    }
    EXPECT_LE(static_cast<int64_t>(in_tier), history::max_points(k)) << "tier " << k;
  }
  EXPECT_EQ(i, points.size());
  // The last hour, inclusive, is every sample as it was taken.
  EXPECT_EQ(query(Value(3600), &variant).size(), 361u);

  // A short span reads the same points from a long query as from its own.
  for (double span : {300.0, 3600.0, kDay}) {
    Array own = query(Value(span), &variant);
    Array tail(points.end() - static_cast<long>(own.size()), points.end());
    EXPECT_EQ(own, tail) << span;
    EXPECT_LT(t_of(points[points.size() - own.size() - 1]), now - span) << span;
  }
}

TEST_F(HistoryStoreTest, PointsCoarsenWithAgeThenExpire) {
  HistoryStoreOptions options;
  options.prune_every = 1;
  store_ = open(options);
  // Ten minutes of samples, one every ten seconds, from the start of an
  // hour; minute j averages j x 100, the ten minutes 450.
  double hour_start = std::floor(kStart / kDay) * kDay + 3600;
  now_ = hour_start;
  for (int i = 0; i < 60; ++i) {
    now_ += 10;
    store_->update(sample(static_cast<uint64_t>(i / 6) * 100), nullptr);
  }
  EXPECT_EQ(query(Value(kDay)).size(), 60u);

  // Each later look stores a sample with no values: it prunes, and leaves
  // the averages alone.
  auto at_age = [&](double age) {
    now_ = hour_start + age;
    store_->update(Array(18, Value("")), nullptr);
    return query(Value(age + 60));
  };
  // Two hours on: one-minute points, each stamped with its minute's end.
  Array minutes = at_age(2 * 3600);
  ASSERT_EQ(minutes.size(), 11u);
  EXPECT_EQ(t_of(minutes[0]), int64_t(hour_start) + 60);
  EXPECT_EQ(value_of(minutes[3], "v1"), Value(uint64_t{300}));
  EXPECT_EQ(value_of(minutes[3], "v11"), Value(""));
  EXPECT_EQ(value_of(minutes[10], "v1"), Value(""));
  // Then one point for the ten minutes in each coarser tier, and the finer
  // tiers' copies are gone from the file.
  for (auto [age, tier] : {std::pair{2 * kDay, 2}, {8 * kDay, 3}, {40 * kDay, 4}}) {
    Array points = at_age(age);
    ASSERT_FALSE(points.empty());
    int64_t step = kTiers[tier].step;
    EXPECT_EQ(t_of(points[0]), (int64_t(hour_start) + 10 + step - 1) / step * step) << age;
    EXPECT_EQ(value_of(points[0], "v1"), Value(uint64_t{450})) << age;
    EXPECT_EQ(sql("SELECT COUNT(*) FROM points WHERE tier < " + std::to_string(tier) +
                  " AND t <= " + std::to_string(int64_t(hour_start) + 600)),
              0)
        << age;
  }
  // After a year nothing is left of them.
  for (const Value& point : at_age(400 * kDay)) EXPECT_GT(t_of(point), int64_t(hour_start + 30 * kDay));
  EXPECT_EQ(sql("SELECT COUNT(*) FROM points WHERE t <= " + std::to_string(int64_t(hour_start) + 600)), 0);
}

TEST_F(HistoryStoreTest, EveryTimeScaleReturnsBoundedPoints) {
  store_ = open();
  // One sample per bucket of every tier over a year and more: the densest
  // history the bound allows for.
  now_ = kStart - 370 * kDay;
  while (now_ <= kStart) {
    store_->update(sample(5), nullptr);
    double age = kStart - now_;
    size_t k = kTierCount;
    while (k > 1 && age < static_cast<double>(kTiers[k - 1].from_age) + 2 * kTiers[k - 1].step) --k;
    now_ += static_cast<double>(kTiers[k - 1].step);
  }
  now_ = kStart;
  size_t previous = 0;
  for (double scale : {0.0, 60.0, 3600.0, kDay, 7 * kDay, 30 * kDay, 365 * kDay, 1e300}) {
    Array points = query(Value(scale));
    EXPECT_LE(static_cast<int64_t>(points.size()), kMaxHistoryPoints) << scale;
    EXPECT_GE(points.size(), previous) << scale;
    previous = points.size();
  }
  EXPECT_GT(static_cast<int64_t>(previous), kMaxHistoryPoints - 20);  // the bound is nearly reached
}

TEST_F(HistoryStoreTest, TheOldLayoutIsUpgradedKeepingEverySample) {
  fs::create_directories(dir_.path("/db"));
  std::string old = "BEGIN; CREATE TABLE samples (t INTEGER NOT NULL, span INTEGER NOT NULL DEFAULT 0";
  for (int n = 1; n <= 18; ++n) old += ", v" + std::to_string(n) + " INTEGER";
  old += "); CREATE INDEX samples_by_time ON samples(t); CREATE INDEX samples_by_span ON samples(span, t);";
  auto row = [&old](int64_t t, int span, int64_t v1, const char* v2) {
    old += "INSERT INTO samples(t, span, v1, v2) VALUES(" + std::to_string(t) + ", " + std::to_string(span) + ", " +
           std::to_string(v1) + ", " + v2 + ");";
  };
  // The last ten minutes as raw samples, v2 missing from every other one;
  // ten days ago an hour of one-minute averages; forty days ago a day of
  // hourly ones.
  int64_t now = int64_t(kStart);
  for (int i = 0; i < 60; ++i) row(now - 590 + 10 * i, 0, i * 10, i % 2 ? "NULL" : "3");
  int64_t hour = now - 10 * 86400 - (now % 3600);
  for (int j = 0; j < 60; ++j) row(hour + 60 * j, 60, j, "NULL");
  int64_t day = now - 40 * 86400 - (now % 86400);
  for (int h = 0; h < 24; ++h) row(day + 3600 * h, 3600, 1000 + h, "NULL");
  sql(old + "COMMIT;");
  ASSERT_EQ(sql("PRAGMA user_version"), 0);

  store_ = open();
  ASSERT_TRUE(store_);
  Value variant("v1,v2");
  Array points = query(Value(100 * kDay), &variant);
  ASSERT_EQ(points.size(), 62u);
  // Each old average counts as one sample in the middle of its span.
  EXPECT_EQ(points[0], Value(Dict{{"t", day + 86400}, {"v1", uint64_t{1012}}, {"v2", ""}}));
  EXPECT_EQ(points[1], Value(Dict{{"t", hour + 3600}, {"v1", uint64_t{30}}, {"v2", ""}}));
  for (int i = 0; i < 60; ++i) {
    EXPECT_EQ(t_of(points[2 + i]), now - 590 + 10 * i);
    EXPECT_EQ(value_of(points[2 + i], "v1"), Value(uint64_t(i * 10)));
    EXPECT_EQ(value_of(points[2 + i], "v2"), i % 2 ? Value("") : Value(uint64_t{3}));
  }
  store_.reset();
  EXPECT_EQ(sql("PRAGMA user_version"), kHistorySchemaVersion);
  EXPECT_EQ(sql("SELECT COUNT(*) FROM sqlite_master WHERE name = 'samples'"), 0);
  store_ = open();  // already current: nothing changes
  EXPECT_EQ(query(Value(100 * kDay), &variant), points);
  store_.reset();

  // A layout this host cannot read is left exactly as it was, at any
  // version: an upgrade that fails changes nothing, a newer file is not
  // touched at all.
  fs::remove_all(dir_.path("/db"));
  fs::create_directories(dir_.path("/db"));
  sql("CREATE TABLE samples (t INTEGER, v1 INTEGER); INSERT INTO samples VALUES (1, 2);");
  std::string error;
  EXPECT_FALSE(open_history_store(path_, {}, &error));
  EXPECT_NE(error.find("upgrade"), std::string::npos) << error;
  EXPECT_EQ(sql("PRAGMA user_version"), 0);
  EXPECT_EQ(sql("SELECT v1 FROM samples"), 2);
  EXPECT_EQ(sql("SELECT COUNT(*) FROM sqlite_master WHERE name = 'points'"), 0);

  sql("PRAGMA journal_mode=DELETE; PRAGMA user_version = 7;");
  std::optional<std::string> before = platform::read_file(path_);
  EXPECT_FALSE(open_history_store(path_, {}, &error));
  EXPECT_NE(error.find("newer"), std::string::npos) << error;
  EXPECT_EQ(platform::read_file(path_), before);
  EXPECT_TRUE(set_asides().empty());
}

TEST_F(HistoryStoreTest, CommittedSamplesSurviveACrashAndDamageIsSetAsideUnderNewNames) {
  pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    // Write and die without closing anything, as a crashed host would.
    HistoryStoreOptions options;
    options.clock = [] { return kStart; };
    auto store = open_history_store(path_, options);
    for (int i = 0; store && i < 25; ++i) store->update(sample(static_cast<uint64_t>(i)), nullptr);
    ::_exit(store ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  store_ = open();
  // Twenty-five samples in one ten-second bucket: one point, their average.
  Array survived = query(Value(60));
  ASSERT_EQ(survived.size(), 1u);
  EXPECT_EQ(value_of(survived[0], "v1"), Value(uint64_t{12}));

  // A file that is no database is set aside and a new one begun; a second
  // damaged file in the same second gets a name of its own.
  for (char filler : {'x', 'y'}) {
    store_.reset();
    ASSERT_TRUE(platform::write_file_atomically(path_, std::string(8192, filler)));
    store_ = open();
    ASSERT_TRUE(store_);
    EXPECT_TRUE(query(Value(60)).empty());
    EXPECT_EQ(store_->update(sample(1), nullptr), nullptr);
  }
  std::vector<std::string> aside = set_asides();
  ASSERT_EQ(aside.size(), 2u);
  EXPECT_EQ(aside[0], path_ + ".corrupt-20231114T221320Z");
  EXPECT_EQ(aside[1], path_ + ".corrupt-20231114T221320Z-2");
  EXPECT_EQ(platform::read_file(aside[0]), std::string(8192, 'x'));
  EXPECT_EQ(platform::read_file(aside[1]), std::string(8192, 'y'));

  // A path that cannot be created reports why.
  std::string error;
  EXPECT_FALSE(open_history_store("/proc/no/such/dir/history.sqlite3", {}, &error));
  EXPECT_FALSE(error.empty());
}

TEST_F(HistoryStoreTest, ConcurrentWritersAndReadersShareOneConnection) {
  store_ = open();
  std::vector<std::thread> threads;
  for (int w = 0; w < 3; ++w)
    threads.emplace_back([this] {
      for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(store_->update(sample(5), nullptr), nullptr);
        std::optional<Array> samples;
        EXPECT_EQ(store_->get(nullptr, Value(60), &samples, nullptr), nullptr);
      }
    });
  for (std::thread& t : threads) t.join();
  Array all = query(Value(60));
  ASSERT_EQ(all.size(), 1u);  // the clock stood still: one bucket
  EXPECT_EQ(value_of(all[0], "v1"), Value(uint64_t{5}));
}

// The status report's CPU averages read from the real store.
class HistoryStatusTest : public hubwarden::testing::MonitorTest {
 protected:
  HistoryStatusTest() {
    clock_.time = kStart + 0.4;
    context_.set("info", Dict{{"state", "RUNNING"}});
    cpu_.ticks = {ticks(1, 1, 1)};
  }

  Array averages(const Array& minutes) {
    Value variant("withDetails+" + plist::write_xml(Value(Dict{{"CPU Avg Times", minutes}})));
    hubwarden::ReplySlot reply;
    EXPECT_EQ(hubwarden::get_server_info(reply, &variant, true, &context_), nullptr);
    const Array* history = reply ? reply->find_array("cpuHistoryBy100") : nullptr;
    return history ? *history : Array();
  }

  platform::testing::ScratchDir dir_;
  std::unique_ptr<platform::HistoryService> store_ = open_history_store(dir_.path("/history.sqlite3"));
  Dict context_;
};

TEST_F(HistoryStatusTest, ShortAveragesAreTheSameWhenAskedWithLongOnes) {
  ASSERT_TRUE(store_);
  hubwarden::testing::Installed<platform::HistoryService> real(store_.get());
  std::vector<Taken> taken = store_eight_days(*store_, &clock_.time);

  Array together = averages(Array{5, 60, 1440, 10080});
  ASSERT_EQ(together.size(), 4u);
  for (size_t i = 0; i < 3; ++i) {
    Value minutes = *together[i].as_dict()->find("interval");
    Array alone = averages(Array{minutes});
    ASSERT_EQ(alone.size(), 1u);
    EXPECT_EQ(alone[0], together[i]) << plist::write_xml(minutes);
  }
  // The last five minutes hold one sample per point: the plain average of
  // the samples taken in them.
  int64_t now = static_cast<int64_t>(kStart);
  int64_t sum = 0, count = 0;
  for (const Taken& s : taken)
    if (now - s.t <= 300) sum += static_cast<int64_t>(s.v1), ++count;
  ASSERT_EQ(count, 31);
  EXPECT_EQ(*together[0].as_dict()->find("cpuUsageBy100"), Value(static_cast<int32_t>(sum / count)));
}

}  // namespace
}  // namespace hubwardend
