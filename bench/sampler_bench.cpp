// The process sampler on this machine's /proc with about 2,000 extra
// sleeping processes: one sample without region figures, one with, and a
// ps(1) run that lists the same columns, with the ratios printed at the end.
// The target is a sample without regions in at most half the time of ps.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <cstdio>
#include <map>
#include <memory>
#include <string>

#include "monitor/sampler/libtop.h"
#include "platform/linux/proc_process_table.h"
#include "platform/registry.h"
#include "sleeping_processes.h"

namespace {

constexpr size_t kExtraProcesses = 2000;

void sample(benchmark::State& state, bool regions) {
  hubwarden::libtop_init(nullptr, nullptr);
  hubwarden::libtop_sample(regions, false);  // the table's records exist from here on
  for (auto _ : state) {
    if (hubwarden::libtop_sample(regions, false) != 0) state.SkipWithError("sample failed");
  }
  state.counters["processes"] = hubwarden::libtop_tsamp()->processes;
  hubwarden::libtop_fini();
}

void BM_SampleWithoutRegions(benchmark::State& state) { sample(state, false); }
void BM_SampleWithRegions(benchmark::State& state) { sample(state, true); }

void BM_Ps(benchmark::State& state) {
  for (auto _ : state) {
    int status = std::system("ps -e -o pid,ppid,pgid,uid,rss,vsz,nlwp,min_flt,maj_flt,time,comm >/dev/null");
    if (status != 0) state.SkipWithError("ps failed");
  }
}

BENCHMARK(BM_SampleWithoutRegions)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime();
BENCHMARK(BM_SampleWithRegions)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime();
BENCHMARK(BM_Ps)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime();

// Remembers each benchmark's time per iteration for the ratios.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  std::map<std::string, double> seconds;
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs)
      if (run.run_type == Run::RT_Iteration && !run.error_occurred)
        seconds[run.run_name.function_name] = run.GetAdjustedRealTime();  // ps's work is in a child
    ConsoleReporter::ReportRuns(runs);
  }
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  SleepingProcesses crowd(kExtraProcesses);
  std::printf("extra sleeping processes: %zu\n", crowd.size());
  auto table = platform::make_proc_process_table();
  platform::testing::install<platform::ProcessTable>(table.get());

  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  platform::testing::install<platform::ProcessTable>(nullptr);

  auto time_of = [&reporter](const char* name) {
    auto it = reporter.seconds.find(name);
    return it == reporter.seconds.end() ? 0.0 : it->second;
  };
  double ps = time_of("BM_Ps");
  if (ps > 0) {
    std::printf("sample without regions / ps: %.2f (target <= 0.50)\n", time_of("BM_SampleWithoutRegions") / ps);
    std::printf("sample with regions / ps:    %.2f\n", time_of("BM_SampleWithRegions") / ps);
  }
  benchmark::Shutdown();
  return 0;
}
