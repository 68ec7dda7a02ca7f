// Service manager: the cost of asking whether a job is enabled for the
// units of all 26 service modules, and of one "getState" across every
// loaded service module.
//
// "Sandbox" runs answer from unit files in a scratch root that holds every
// module's unit (half of them enabled) and a process table of 400 entries,
// which is what the getState fallback scans. "Host" runs use the real root
// the way the daemon would: over D-Bus when systemd runs, else from the
// machine's unit files and /proc. The context line "systemd" tells which.
// Counters: "per_query" is the time of one job_enabled or one getState;
// getState reuses one look at the process table for a second, so the
// ProcessTable run shows what a query costs when that look is due.
#include <benchmark/benchmark.h>

#include "bench_root.h"
#include <stdlib.h>
#include <systemd/sd-daemon.h>

#include <filesystem>

#include "hubwardend/service_modules.h"
#include "platform/file_util.h"
#include "platform/linux/systemd_service_manager.h"
#include "platform/paths.h"
#include "platform/registry.h"

namespace {

using Root = bench::BenchRoot;

// The first candidate unit of every configured service module.
std::vector<std::string> module_units(const platform::HostServiceMap& map) {
  std::vector<std::string> units;
  for (const auto& [name, candidates] : map.service_modules) {
    units.push_back(candidates.empty() ? name + ".service" : candidates.front());
  }
  return units;
}

void populate_sandbox(const std::string& dir, const std::vector<std::string>& units) {
  for (size_t i = 0; i < units.size(); ++i) {
    const std::string& unit = units[i];
    std::string program = unit.substr(0, unit.find_first_of("@."));
    platform::write_file_atomically(dir + "/lib/systemd/system/" + unit,
                                    "[Unit]\nDescription=" + program + "\n\n[Service]\nExecStart=/usr/sbin/" +
                                        program + " --foreground\n\n[Install]\nWantedBy=multi-user.target\n");
    if (i % 2 == 0) {
      std::string wants = dir + "/etc/systemd/system/multi-user.target.wants";
      platform::make_directories(wants);
      std::error_code ec;  // a unit shared by two modules is linked once
      std::filesystem::create_symlink("/lib/systemd/system/" + unit, wants + "/" + unit, ec);
    }
  }
  for (int pid = 1; pid <= 400; ++pid) {
    std::string comm = pid % 50 == 0 ? units[static_cast<size_t>(pid / 50) % units.size()].substr(0, 5)
                                     : "worker" + std::to_string(pid);
    platform::write_file_atomically(dir + "/proc/" + std::to_string(pid) + "/comm", comm + "\n");
    platform::write_file_atomically(dir + "/proc/" + std::to_string(pid) + "/stat",
                                    std::to_string(pid) + " (" + comm + ") S 1 1 1 0 -1\n");
  }
}

void set_per_query(benchmark::State& state, size_t queries_per_iteration) {
  state.counters["per_query"] = benchmark::Counter(
      static_cast<double>(queries_per_iteration), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
  state.counters["queries"] = static_cast<double>(queries_per_iteration);
}

void run_job_enabled(benchmark::State& state, bool sandbox) {
  Root root(sandbox);
  platform::HostServiceMap map = platform::default_host_service_map();
  std::vector<std::string> units = module_units(map);
  if (sandbox) populate_sandbox(root.dir(), units);
  platform::SystemdServiceManager manager(map, platform::default_service_manager_mode());
  for (auto _ : state) {
    for (const std::string& unit : units) benchmark::DoNotOptimize(manager.job_enabled(unit));
  }
  set_per_query(state, units.size());
}

void run_get_state(benchmark::State& state, bool sandbox) {
  Root root(sandbox);
  platform::HostServiceMap map = platform::default_host_service_map();
  if (sandbox) populate_sandbox(root.dir(), module_units(map));
  auto manager = std::make_shared<platform::SystemdServiceManager>(map, platform::default_service_manager_mode());
  auto modules = hubwardend::load_service_modules(map, manager);
  if (modules.empty()) {
    state.SkipWithError("no service module has an installed unit here");
    return;
  }
  plist::Dict request{{"command", "getState"}};
  for (auto _ : state) {
    for (auto& module : modules) benchmark::DoNotOptimize(module->handle(request, "root"));
  }
  set_per_query(state, modules.size());
}

// One look at the machine's real process table: what a getState costs when
// the cached table has expired.
void BM_ProcessTable_Host(benchmark::State& state) {
  Root root(false);
  size_t processes = 0;
  for (auto _ : state) processes = platform::ProcessSnapshot::take().size();
  state.counters["processes"] = static_cast<double>(processes);
}

void BM_JobEnabled_Sandbox(benchmark::State& state) { run_job_enabled(state, true); }
void BM_GetState_Sandbox(benchmark::State& state) { run_get_state(state, true); }
void BM_JobEnabled_Host(benchmark::State& state) { run_job_enabled(state, false); }
void BM_GetState_Host(benchmark::State& state) { run_get_state(state, false); }

BENCHMARK(BM_JobEnabled_Sandbox)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_GetState_Sandbox)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_JobEnabled_Host)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_GetState_Host)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ProcessTable_Host)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
  benchmark::AddCustomContext("systemd", sd_booted() > 0 ? "running (host runs use D-Bus)"
                                                         : "not running (host runs use unit files and /proc)");
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
