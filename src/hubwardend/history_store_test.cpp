#include "hubwardend/history_store.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <thread>

#include "platform/file_util.h"

namespace hubwardend {
namespace {

namespace fs = std::filesystem;
using plist::Array;
using plist::Dict;
using plist::Value;

constexpr double kDay = 86400;
constexpr double kStart = 1.7e9;

class HistoryStoreTest : public ::testing::Test {
 protected:
  HistoryStoreTest() {
    std::string tmpl = (fs::temp_directory_path() / "history-test-XXXXXX").string();
    dir_ = ::mkdtemp(tmpl.data());
    path_ = dir_ + "/db/history.sqlite3";
  }
  ~HistoryStoreTest() override {
    store_.reset();
    std::error_code ec;
    fs::remove_all(dir_, ec);
  }

  std::unique_ptr<platform::HistoryService> open(HistoryStoreOptions options = {}) {
    options.clock = [this] { return now_; };
    std::string error;
    auto store = open_history_store(path_, options, &error);
    EXPECT_TRUE(store) << error;
    return store;
  }

  static Array sample(uint64_t first, uint64_t rest = 7) {
    Array s(18, Value(rest));
    s[0] = Value(first);
    for (size_t i = 10; i < 14; ++i) s[i] = Value("");
    return s;
  }

  Array query(const Value& time_scale, const Value* variant = nullptr) {
    std::optional<Array> samples;
    EXPECT_EQ(store_->get(variant, time_scale, &samples, nullptr), nullptr);
    return samples.value_or(Array());
  }

  std::string dir_, path_;
  double now_ = kStart;
  std::unique_ptr<platform::HistoryService> store_;
};

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

TEST_F(HistoryStoreTest, LongSpansAreThinnedToBoundedAverages) {
  HistoryStoreOptions options;
  options.max_points = 100;
  store_ = open(options);
  for (int i = 0; i < 2400; ++i) {
    store_->update(sample(i % 2 == 0 ? 1000 : 3000), nullptr);
    now_ += 10;
  }
  Array thinned = query(Value(kDay));
  EXPECT_EQ(thinned.size(), 100u);
  int64_t previous = 0;
  for (const Value& v : thinned) {
    const Dict& s = *v.as_dict();
    int64_t t = *s.find("t")->to_int64();
    EXPECT_GT(t, previous);
    previous = t;
    // 24 samples a bucket: whole pairs, so the average is exact.
    EXPECT_EQ(*s.find("v1"), Value(uint64_t{2000}));
    EXPECT_EQ(*s.find("v11"), Value(""));
  }
  EXPECT_EQ(query(Value(600)).size(), 60u);  // short spans stay at full resolution
}

TEST_F(HistoryStoreTest, OldSamplesAreRolledUpThenDropped) {
  HistoryStoreOptions options;
  options.prune_every = 1;
  store_ = open(options);
  // Ten minutes of samples, one every ten seconds; minute j averages j x 100.
  double minute_start = std::floor(kStart / 60) * 60;
  now_ = minute_start;
  for (int i = 0; i < 60; ++i) {
    store_->update(sample(static_cast<uint64_t>(i / 6) * 100), nullptr);
    now_ += 10;
  }
  EXPECT_EQ(query(Value(kDay)).size(), 60u);

  // Eight days later the raw samples have become one row per minute.
  now_ = minute_start + 8 * kDay;
  store_->update(sample(1), nullptr);
  Array minutes = query(Value(9 * kDay));
  ASSERT_EQ(minutes.size(), 11u);
  EXPECT_EQ(*minutes[0].as_dict()->find("t"), Value(int64_t(minute_start)));
  EXPECT_EQ(*minutes[3].as_dict()->find("v1"), Value(uint64_t{300}));
  EXPECT_EQ(*minutes[3].as_dict()->find("v11"), Value(""));

  // After forty days the minutes have become hours; after a year and more
  // nothing is left of them.
  now_ = minute_start + 40 * kDay;
  store_->update(sample(1), nullptr);
  Array hours = query(Value(41 * kDay));
  EXPECT_EQ(hours.size(), 3u);  // the two roll-ups and the new sample
  now_ = minute_start + 400 * kDay;
  store_->update(sample(1), nullptr);
  EXPECT_EQ(query(Value(1000 * kDay)).size(), 2u);  // the day-40 hour and the new sample
}

TEST_F(HistoryStoreTest, CommittedSamplesSurviveACrashAndDamageStartsAfresh) {
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
  EXPECT_EQ(query(Value(60)).size(), 25u);

  // A file that is no database is set aside and a new one begun.
  store_.reset();
  fs::remove(path_ + "-wal");
  fs::remove(path_ + "-shm");
  ASSERT_TRUE(platform::write_file_atomically(path_, std::string(8192, 'x')));
  store_ = open();
  ASSERT_TRUE(store_);
  EXPECT_TRUE(query(Value(60)).empty());
  EXPECT_EQ(store_->update(sample(1), nullptr), nullptr);
  EXPECT_TRUE(fs::exists(path_ + ".corrupt"));

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
  EXPECT_EQ(query(Value(60)).size(), 300u);
}

}  // namespace
}  // namespace hubwardend
