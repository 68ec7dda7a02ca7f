// How long getState waits while listProcesses requests, each pausing a
// second between its two samples, run on other threads: the daemon's
// workers share one module context, and a paused request must not hold the
// others up. Four threads loop listProcesses through the host's module
// manager while the main thread sends getState one after another and
// records each latency; prints p50, p99 and the maximum.
//
// Real process table, processor and interface counters and a sandbox root;
// the pause is the module's own one-second sleep.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

#include "bench_root.h"
#include "hubwardend/module_manager.h"
#include "platform/linux/metered_interfaces.h"
#include "platform/linux/meters_linux.h"
#include "platform/linux/proc_process_table.h"
#include "platform/registry.h"

namespace {

using Clock = std::chrono::steady_clock;

double percentile(std::vector<double> values, double p) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  size_t at = static_cast<size_t>(p * static_cast<double>(values.size() - 1) + 0.5);
  return values[std::min(at, values.size() - 1)];
}

}  // namespace

int main(int argc, char** argv) {
  double seconds = argc > 1 ? std::atof(argv[1]) : 10.0;
  bench::BenchRoot root;
  auto table = platform::make_proc_process_table();
  auto cpu = platform::make_proc_processor_stats();
  auto net = platform::make_sysfs_interface_stats();
  platform::testing::ScopedService<platform::ProcessTable> installed_table(table.get());
  platform::testing::ScopedService<platform::ProcessorStats> installed_cpu(cpu.get());
  platform::testing::ScopedService<platform::InterfaceStats> installed_net(net.get());

  plist::Dict context;
  hubwardend::HostModuleManager manager(&context);
  platform::testing::ScopedService<platform::ModuleManager> installed_manager(&manager);

  std::atomic<bool> stop{false};
  std::atomic<int> listings{0};
  std::vector<std::thread> listers;
  for (int i = 0; i < 4; ++i)
    listers.emplace_back([&] {
      while (!stop) {
        manager.process_request(plist::Dict{{"command", "listProcesses"}}, "admin");
        ++listings;
      }
    });

  std::vector<double> latencies_ms;
  Clock::time_point end =
      Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
  while (Clock::now() < end) {
    Clock::time_point start = Clock::now();
    manager.process_request(plist::Dict{{"command", "getState"}}, "admin");
    latencies_ms.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  stop = true;
  for (auto& t : listers) t.join();

  std::printf("getState while 4 threads loop listProcesses (%.0f s): %zu requests, %d listings\n", seconds,
              latencies_ms.size(), listings.load());
  std::printf("p50 %.2f ms  p99 %.2f ms  max %.2f ms\n", percentile(latencies_ms, 0.5), percentile(latencies_ms, 0.99),
              percentile(latencies_ms, 1.0));
  return 0;
}
