// Software update costs the daemon pays on its own threads: one detached
// launch of a job (fork, daemon(3), every descriptor closed, exec), at the
// open-files soft limit this process has and at its hard limit (service
// units may raise the soft limit to a million); and the update step of one idle pass while a job runs, with a
// status file listing 500 updates.
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <string>

#include "bench_root.h"
#include "platform/fake/fake_process_signals.h"
#include "platform/file_util.h"
#include "platform/linux/basics.h"
#include "platform/registry.h"
#include "plist/codec.h"
#include "request/operations.h"
#include "swupdate/swupdate_status.h"

namespace {

using hubwarden::Array;
using hubwarden::Dict;

void BM_LaunchDetached(benchmark::State& state) {
  struct rlimit old;
  ::getrlimit(RLIMIT_NOFILE, &old);
  struct rlimit raised = old;
  if (state.range(0) > 0) {
    raised.rlim_cur = raised.rlim_max;
    if (::setrlimit(RLIMIT_NOFILE, &raised) != 0) {
      state.SkipWithError("cannot raise the open-files limit");
      return;
    }
  }
  state.counters["limit"] = static_cast<double>(raised.rlim_cur);
  bench::BenchRoot root(false);
  auto tasks = platform::make_process_tasks();
  for (auto _ : state) {
    platform::DetachedLaunch launch = tasks->launch_detached("/bin/true", {"true"});
    if (launch.pid < 0) state.SkipWithError("fork failed");
  }
  // Jobs reparented to us (when we are a namespace's first process).
  while (::waitpid(-1, nullptr, WNOHANG) > 0) {
  }
  ::setrlimit(RLIMIT_NOFILE, &old);
}
BENCHMARK(BM_LaunchDetached)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

void BM_IdleUpdateStepWhileAJobRuns(benchmark::State& state) {
  bench::BenchRoot root;
  Array updates;
  for (int i = 0; i < 500; ++i)
    updates.push_back(Dict{{"identifier", "package-" + std::to_string(i)},
                           {"name", "package-" + std::to_string(i)},
                           {"version", "1.0-" + std::to_string(i)},
                           {"sizeInKB", 1000 + i},
                           {"restartRequired", false},
                           {"ignored", false},
                           {"phase", "DOWNLOADING"}});
  Dict status{{"phase", "INSTALLING"}, {"pid", 5000}, {"phaseResultsArray", updates}};
  platform::write_file_atomically(hubwarden::swupdate_status_path(), plist::write_xml(status));
  platform::FakeProcessSignals signals;  // 5000 answers as alive
  platform::testing::install<platform::ProcessSignals>(&signals);
  Dict context{{"swupdateActive", true}, {"swupdatePid", 5000}};
  for (auto _ : state) {
    benchmark::DoNotOptimize(hubwarden::periodic_swupdate_handler(&context));
    signals.sent.clear();
  }
  platform::testing::install<platform::ProcessSignals>(nullptr);
}
BENCHMARK(BM_IdleUpdateStepWhileAJobRuns)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
