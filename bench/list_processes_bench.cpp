// "listProcesses" on this machine's /proc with about 2,000 extra sleeping
// processes and the default sort (CPU usage): the time the command takes
// beyond its one-second pause between samples (the pause is replaced by
// nothing here), with every field (target 150 ms) and with every field but
// "Private" and "Shared" (target 100 ms); a request naming "Command"
// 2,000,000 times; and one full run with the real pause.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <memory>

#include "monitor/process_list.h"
#include "platform/linux/proc_process_table.h"
#include "platform/registry.h"
#include "platform/sleeper.h"
#include "request/operations.h"
#include "sleeping_processes.h"

namespace {

using hubwarden::Array;
using hubwarden::Dict;

constexpr size_t kExtraProcesses = 2000;

class NoPause : public platform::Sleeper {
 public:
  void sleep_for(double) override {}
};

Array all_fields() {
  return Array{"Command", "PID",     "UIDPPID",      "CPUUsage",          "GID",         "Ports",
               "Shared",  "Threads", "Private",      "VPrivate",          "VirtualSize", "ResidentSize",
               "Faults",  "PageIns", "TotalSeconds", "TotalMicroSeconds", "Username"};
}

Array fields_without_regions() {
  Array fields;
  for (const hubwarden::Value& f : all_fields())
    if (*f.as_string() != "Private" && *f.as_string() != "Shared") fields.push_back(f);
  return fields;
}

size_t rows_of(const hubwarden::ReplySlot& reply) {
  const Array* rows = reply ? reply->find_array("processInfo") : nullptr;
  return rows ? rows->size() : 0;
}

void list_without_pause(benchmark::State& state, const Dict& request) {
  NoPause no_pause;
  platform::testing::install<platform::Sleeper>(&no_pause);
  size_t rows = 0;
  for (auto _ : state) {
    hubwarden::ReplySlot reply;
    hubwarden::list_processes(request, reply, nullptr);
    rows = rows_of(reply);
  }
  state.counters["rows"] = static_cast<double>(rows);
  platform::testing::install<platform::Sleeper>(nullptr);
}

void BM_ListAllFieldsBeyondPause(benchmark::State& state) {
  list_without_pause(state, Dict{{"fieldsToReturn", all_fields()}});
}

void BM_ListWithoutRegionFieldsBeyondPause(benchmark::State& state) {
  list_without_pause(state, Dict{{"fieldsToReturn", fields_without_regions()}});
}

void BM_ListRepeatedFieldBeyondPause(benchmark::State& state) {
  list_without_pause(state, Dict{{"fieldsToReturn", Array(2000000, hubwarden::Value("Command"))}});
}

void BM_ListAllFieldsWithPause(benchmark::State& state) {
  Dict request{{"fieldsToReturn", all_fields()}};
  size_t rows = 0;
  double beyond = 0;
  for (auto _ : state) {
    auto start = std::chrono::steady_clock::now();
    hubwarden::ReplySlot reply;
    hubwarden::list_processes(request, reply, nullptr);
    beyond += std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count() - 1000.0;
    rows = rows_of(reply);
  }
  state.counters["rows"] = static_cast<double>(rows);
  state.counters["ms_beyond_pause"] = beyond / static_cast<double>(state.iterations());
}

BENCHMARK(BM_ListAllFieldsBeyondPause)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime();
BENCHMARK(BM_ListWithoutRegionFieldsBeyondPause)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime();
BENCHMARK(BM_ListRepeatedFieldBeyondPause)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();
BENCHMARK(BM_ListAllFieldsWithPause)->Unit(benchmark::kMillisecond)->Iterations(2);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  SleepingProcesses crowd(kExtraProcesses);
  std::printf("extra sleeping processes: %zu\n", crowd.size());
  auto table = platform::make_proc_process_table();
  platform::testing::install<platform::ProcessTable>(table.get());
  benchmark::RunSpecifiedBenchmarks();
  platform::testing::install<platform::ProcessTable>(nullptr);
  benchmark::Shutdown();
  return 0;
}
