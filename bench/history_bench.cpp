// History store: storing a week of samples taken every ten seconds
// (60,480), and the console's "getHistory" over eight days of them at the
// time scales it offers (an hour, a day, a week), which the consolidation
// tiers answer with a bounded number of points.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <filesystem>

#include "bench_root.h"
#include "hubwardend/history_store.h"
#include "platform/clock.h"
#include "platform/registry.h"
#include "request/operations.h"

namespace {

using plist::Array;
using plist::Value;

constexpr int kWeekOfSamples = 7 * 24 * 360;
constexpr double kStart = 1.7e9;

class FixedClock : public platform::Clock {
 public:
  double time = kStart;
  double now() override { return time; }
  std::optional<double> boot_time() override { return std::nullopt; }
  int set_time(double t) override {
    time = t;
    return 0;
  }
};

Array sample(int i) {
  Array s(18, Value(""));
  s[0] = Value(static_cast<uint64_t>(i % 10000));
  s[1] = Value(static_cast<uint64_t>(i) * 1000);
  s[2] = Value(uint64_t{2500});
  s[3] = Value(uint64_t{7500});
  s[4] = Value(static_cast<uint64_t>(i) * 900);
  s[14] = Value(static_cast<uint64_t>(i) * 600);
  s[15] = Value(static_cast<uint64_t>(i) * 400);
  s[16] = Value(uint64_t{123456789012});
  s[17] = Value(uint64_t{4321});
  return s;
}

class TempStore {
 public:
  explicit TempStore(FixedClock* clock) {
    hubwardend::HistoryStoreOptions options;
    options.clock = [clock] { return clock->time; };
    store = hubwardend::open_history_store(scratch_.dir() + "/history.sqlite3", options);
  }
  ~TempStore() { store.reset(); }

 private:
  bench::ScratchDir scratch_;  // made first, removed last

 public:
  std::unique_ptr<platform::HistoryService> store;
};

void BM_StoreWeekOfSamples(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    FixedClock clock;
    auto temp = std::make_unique<TempStore>(&clock);
    state.ResumeTiming();
    for (int i = 0; i < kWeekOfSamples; ++i) {
      temp->store->update(sample(i), nullptr);
      clock.time += 10;
    }
    state.PauseTiming();
    temp.reset();
    state.ResumeTiming();
  }
  state.counters["samples"] = kWeekOfSamples;
  state.counters["per_sample_us"] =
      benchmark::Counter(kWeekOfSamples, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_StoreWeekOfSamples)->Unit(benchmark::kSecond)->Iterations(1);

// Eight days of samples every ten seconds, stored once for all the
// queries below.
TempStore& eight_days(FixedClock* clock) {
  static std::unique_ptr<TempStore> store = [clock] {
    auto temp = std::make_unique<TempStore>(clock);
    for (int i = 0; i < 8 * 24 * 360; ++i) {
      temp->store->update(sample(i), nullptr);
      clock->time += 10;
    }
    return temp;
  }();
  return *store;
}

void BM_GetHistory(benchmark::State& state) {
  static FixedClock clock;
  TempStore& temp = eight_days(&clock);
  platform::testing::install<platform::Clock>(&clock);
  platform::testing::install<platform::HistoryService>(temp.store.get());
  Value time_scale(state.range(0));
  hubwarden::ReplySlot reply;
  for (auto _ : state) {
    reply.reset();
    if (hubwarden::get_history_data(nullptr, time_scale, reply, nullptr) != nullptr)
      state.SkipWithError("getHistory failed");
    benchmark::DoNotOptimize(reply);
  }
  state.counters["points"] = reply ? static_cast<double>(reply->find_array("samplesArray")->size()) : 0;
  platform::testing::install<platform::HistoryService>(nullptr);
  platform::testing::install<platform::Clock>(nullptr);
}
BENCHMARK(BM_GetHistory)->Arg(3600)->Arg(86400)->Arg(7 * 86400)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
