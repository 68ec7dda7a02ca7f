// Settings commands: one "readSettings" (every setting the console's general
// pages show) and one "getServicesInfo" (a getState to each of the 26
// service modules), through the module's own functions.
//
// "Fakes" runs put the 26 modules behind an in-memory module manager (half
// of them running) and answer job questions from memory: the module's own
// cost. "UnitFiles" runs use the Linux implementations in a scratch root:
// the systemd service manager reading unit files and a process table of 400
// entries, and the host's module manager with one service module per unit.
// "Host" runs do the same at the real root, over D-Bus when systemd runs;
// the context line "systemd" tells which, and the counter "modules" how
// many service modules had an installed unit there.
#include <benchmark/benchmark.h>

#include "bench_root.h"
#include <stdlib.h>
#include <systemd/sd-daemon.h>

#include <filesystem>
#include <memory>

#include "access/service_config.h"
#include "hubwardend/module_manager.h"
#include "hubwardend/service_modules.h"
#include "platform/fake/fake_directory.h"
#include "platform/fake/fake_service_manager.h"
#include "platform/file_util.h"
#include "platform/linux/systemd_service_manager.h"
#include "platform/paths.h"
#include "platform/registry.h"
#include "request/globals.h"
#include "request/operations.h"
#include "settings/settings_file.h"
#include "testing/settings_doubles.h"

namespace {

using hubwarden::Dict;
using hubwarden::ReplySlot;

using Root = bench::BenchRoot;

// A settings file of the size a configured server has.
void write_settings() {
  Dict services;
  for (int i = 0; i < 26; ++i) services.set("com.marlo.Overseer.S" + std::to_string(i), Dict{{"configured", true}});
  hubwarden::write_settings_file(Dict{{"ServiceConfig", Dict{{"services", services}}},
                                      {"serviceConfigForUpgradeChecked", true},
                                      {"NotificationsSettings", Dict{{"diskFull", Dict{{"active", true}}}}}});
}

// Every module's first unit installed, every other one enabled, and a
// process table in which some of them run.
void populate_units(const std::string& dir, const platform::HostServiceMap& map) {
  size_t i = 0;
  std::vector<std::string> units;
  for (const auto& [name, candidates] : map.service_modules) {
    std::string unit = candidates.empty() ? name + ".service" : candidates.front();
    units.push_back(unit);
    std::string program = unit.substr(0, unit.find_first_of("@."));
    platform::write_file_atomically(dir + "/lib/systemd/system/" + unit,
                                    "[Service]\nExecStart=/usr/sbin/" + program +
                                        "\n\n[Install]\nWantedBy=multi-user.target\n");
    if (i++ % 2 == 0) {
      std::string wants = dir + "/etc/systemd/system/multi-user.target.wants";
      platform::make_directories(wants);
      std::error_code ec;
      std::filesystem::create_symlink("/lib/systemd/system/" + unit, wants + "/" + unit, ec);
    }
  }
  for (int pid = 1; pid <= 400; ++pid) {
    std::string comm = pid % 30 == 0 ? units[static_cast<size_t>(pid / 30) % units.size()].substr(0, 5)
                                     : "worker" + std::to_string(pid);
    platform::write_file_atomically(dir + "/proc/" + std::to_string(pid) + "/comm", comm + "\n");
    platform::write_file_atomically(dir + "/proc/" + std::to_string(pid) + "/stat",
                                    std::to_string(pid) + " (" + comm + ") S 1 1 1 0 -1\n");
  }
}

// The module-wide state of a daemon after its first idle pass.
struct Loaded {
  Loaded() {
    hubwarden::create_services_table();
    hubwarden::create_auth_string();
    hubwarden::create_settings_lock();
  }
  ~Loaded() { hubwarden::reset_services_table_for_testing(); }
};

enum class Command { kReadSettings, kGetServicesInfo };

void run(benchmark::State& state, Command command, Dict* context) {
  for (auto _ : state) {
    if (command == Command::kReadSettings) {
      ReplySlot reply;
      hubwarden::read_settings(nullptr, reply, context);
      benchmark::DoNotOptimize(reply);
    } else {
      benchmark::DoNotOptimize(hubwarden::build_services_dict(false, false, context));
    }
  }
}

void run_fakes(benchmark::State& state, Command command) {
  Root root(true);
  write_settings();
  Loaded loaded;
  hubwarden::testing::FakeModuleManager modules;
  modules.set_record_calls(false);
  std::vector<std::string> names{"hubwarden_info"};
  size_t i = 0;
  for (const auto& [module, id] : *hubwarden::gServerToClientMapping()) {
    names.push_back(module);
    modules.set_state(module, i++ % 2 == 0 ? "RUNNING" : "STOPPED");
  }
  modules.set_module_names(names);
  platform::FakeServiceManager jobs;
  platform::FakeDirectory directory;
  platform::testing::install<platform::ModuleManager>(&modules);
  platform::testing::install<platform::ServiceManager>(&jobs);
  platform::testing::install<platform::Directory>(&directory);

  Dict context{{"info", Dict{{"computerName", "Hub"}, {"localcastName", "hub"}}}};
  run(state, command, &context);

  platform::testing::install<platform::ModuleManager>(nullptr);
  platform::testing::install<platform::ServiceManager>(nullptr);
  platform::testing::install<platform::Directory>(nullptr);
}

void run_linux(benchmark::State& state, Command command, bool sandbox) {
  Root root(sandbox);
  platform::HostServiceMap map = platform::default_host_service_map();
  if (sandbox) {
    populate_units(root.dir(), map);
    write_settings();
  }
  // Reading the configuration marks running services once setup is done,
  // which would write the real settings file.
  if (!sandbox && command == Command::kReadSettings &&
      platform::file_exists(platform::resolve("/var/db/.MarloSetupDone"))) {
    state.SkipWithError("setup-done marker present: reading would write the real settings file");
    return;
  }
  Loaded loaded;
  auto manager = std::make_shared<platform::SystemdServiceManager>(map, platform::default_service_manager_mode());
  Dict context{{"info", Dict{{"computerName", "Hub"}, {"localcastName", "hub"}}}};
  hubwardend::HostModuleManager modules(&context);
  auto service_modules = hubwardend::load_service_modules(map, manager);
  state.counters["modules"] = static_cast<double>(service_modules.size());
  for (auto& module : service_modules) modules.add_module(std::move(module));
  platform::FakeDirectory directory;
  platform::testing::install<platform::ModuleManager>(&modules);
  platform::testing::install<platform::ServiceManager>(manager.get());
  platform::testing::install<platform::Directory>(&directory);

  run(state, command, &context);

  platform::testing::install<platform::ModuleManager>(nullptr);
  platform::testing::install<platform::ServiceManager>(nullptr);
  platform::testing::install<platform::Directory>(nullptr);
}

void BM_ReadSettings_Fakes(benchmark::State& state) { run_fakes(state, Command::kReadSettings); }
void BM_GetServicesInfo_Fakes(benchmark::State& state) { run_fakes(state, Command::kGetServicesInfo); }
void BM_ReadSettings_UnitFiles(benchmark::State& state) { run_linux(state, Command::kReadSettings, true); }
void BM_GetServicesInfo_UnitFiles(benchmark::State& state) { run_linux(state, Command::kGetServicesInfo, true); }
void BM_ReadSettings_Host(benchmark::State& state) { run_linux(state, Command::kReadSettings, false); }
void BM_GetServicesInfo_Host(benchmark::State& state) { run_linux(state, Command::kGetServicesInfo, false); }

BENCHMARK(BM_ReadSettings_Fakes)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_GetServicesInfo_Fakes)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ReadSettings_UnitFiles)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_GetServicesInfo_UnitFiles)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ReadSettings_Host)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_GetServicesInfo_Host)->Unit(benchmark::kMicrosecond);

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
