// "listProcesses" on this machine's /proc with about 2,000 extra sleeping
// processes, every field requested and the default sort: the time the
// command takes beyond its one-second pause between samples (the pause is
// replaced by nothing here), and one full run with the real pause.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <memory>

#include "monitor/process_list.h"
#include "platform/linux/proc_process_table.h"
#include "platform/registry.h"
#include "request/operations.h"
#include "sleeping_processes.h"

namespace {

using hubwarden::Array;
using hubwarden::Dict;

constexpr size_t kExtraProcesses = 2000;

Dict all_fields_request() {
  return Dict{{"fieldsToReturn", Array{"Command", "PID", "UIDPPID", "CPUUsage", "GID", "Ports", "Shared", "Threads",
                                       "Private", "VPrivate", "VirtualSize", "ResidentSize", "Faults", "PageIns",
                                       "TotalSeconds", "TotalMicroSeconds", "Username"}}};
}

size_t rows_of(const hubwarden::ReplySlot& reply) {
  const Array* rows = reply ? reply->find_array("processInfo") : nullptr;
  return rows ? rows->size() : 0;
}

void BM_ListProcessesBeyondPause(benchmark::State& state) {
  hubwarden::set_process_sample_pause_for_testing([] {});
  Dict request = all_fields_request();
  size_t rows = 0;
  for (auto _ : state) {
    hubwarden::ReplySlot reply;
    hubwarden::list_processes(request, reply, nullptr);
    rows = rows_of(reply);
  }
  state.counters["rows"] = static_cast<double>(rows);
  hubwarden::set_process_sample_pause_for_testing(nullptr);
}

void BM_ListProcessesWithPause(benchmark::State& state) {
  Dict request = all_fields_request();
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

BENCHMARK(BM_ListProcessesBeyondPause)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime();
BENCHMARK(BM_ListProcessesWithPause)->Unit(benchmark::kMillisecond)->Iterations(2);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  SleepingProcesses crowd(kExtraProcesses);
  std::printf("extra sleeping processes: %zu\n", crowd.size());
  auto table = platform::make_proc_process_table();
  platform::install<platform::ProcessTable>(table.get());
  benchmark::RunSpecifiedBenchmarks();
  platform::install<platform::ProcessTable>(nullptr);
  benchmark::Shutdown();
  return 0;
}
