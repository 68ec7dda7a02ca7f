// Benchmarks of the city table and zone lookups behind time zone selection
// by city: a lookup by id must take microseconds, the table must load in
// well under 10 ms at start, and an abbreviation lookup (after the first,
// which builds ICU's table) must be cheap enough to run inside a request.
// Runs against the table the build generated beside this program and the
// machine's zone files.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "platform/linux/city_table.h"
#include "platform/linux/time_zones_icu.h"

namespace {

std::string built_table() {
  return (std::filesystem::read_symlink("/proc/self/exe").parent_path() / "cities.bin").string();
}

void BM_CityTableLoad(benchmark::State& state) {
  const std::string path = built_table();
  size_t count = 0;
  for (auto _ : state) {
    std::string error;
    std::unique_ptr<platform::CityTable> table = platform::CityTable::open(path, &error);
    benchmark::DoNotOptimize(table.get());
    count = table->size();
  }
  if (count == 0) state.SkipWithError("no city table beside the benchmark");
  state.counters["cities"] = benchmark::Counter(static_cast<double>(count));
}
BENCHMARK(BM_CityTableLoad)->Unit(benchmark::kMillisecond);

// Ids spread over the whole table, each found, so every lookup walks the
// full binary search and copies a city out.
void BM_CityById(benchmark::State& state) {
  std::string error;
  std::unique_ptr<platform::CityTable> table = platform::CityTable::open(built_table(), &error);
  const std::vector<uint32_t> ids = {2988507, 5368361, 1850147, 2643743, 2950159, 3169070, 524901, 1816670};
  for (uint32_t id : ids) {
    if (!table->city_by_id(id)) {
      state.SkipWithError("a known city is missing from the table");
      return;
    }
  }
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(table->city_by_id(ids[i++ % ids.size()]));
  }
}
BENCHMARK(BM_CityById)->Unit(benchmark::kMicrosecond);

void BM_CityByUnknownId(benchmark::State& state) {
  std::string error;
  std::unique_ptr<platform::CityTable> table = platform::CityTable::open(built_table(), &error);
  uint32_t id = 1;
  for (auto _ : state) {
    benchmark::DoNotOptimize(table->city_by_id(id));
    id += 2;  // odd ids below the first real one, never found
    if (id > 1000) id = 1;
  }
}
BENCHMARK(BM_CityByUnknownId)->Unit(benchmark::kMicrosecond);

// The first abbreviation lookup of a process: building the table from ICU.
void BM_ZoneAbbreviationFirstLookup(benchmark::State& state) {
  for (auto _ : state) {
    std::unique_ptr<platform::TimeZones> zones = platform::make_linux_time_zones();
    benchmark::DoNotOptimize(zones->zone_by_abbreviation("CET"));
  }
}
BENCHMARK(BM_ZoneAbbreviationFirstLookup)->Unit(benchmark::kMillisecond)->Iterations(20);

void BM_ZoneByAbbreviation(benchmark::State& state) {
  std::unique_ptr<platform::TimeZones> zones = platform::make_linux_time_zones();
  const char* abbreviations[] = {"CET", "PST", "EST", "IST", "XYZ"};
  if (!zones->zone_by_abbreviation("CET")) {
    state.SkipWithError("no zone files on this machine");
    return;
  }
  size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(zones->zone_by_abbreviation(abbreviations[i++ % 5]));
}
BENCHMARK(BM_ZoneByAbbreviation)->Unit(benchmark::kMicrosecond);

void BM_ZoneByName(benchmark::State& state) {
  std::unique_ptr<platform::TimeZones> zones = platform::make_linux_time_zones();
  for (auto _ : state) benchmark::DoNotOptimize(zones->zone_by_name("Europe/Paris"));
}
BENCHMARK(BM_ZoneByName)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
