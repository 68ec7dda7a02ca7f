// Settings store: the cost of reading a typical settings file (a few dozen
// keys, service configuration and notification settings) and of one
// read-modify-write update, under a sandbox root.
#include <benchmark/benchmark.h>

#include "bench_root.h"
#include <stdlib.h>

#include <filesystem>

#include "platform/paths.h"
#include "platform/registry.h"
#include "settings/settings_file.h"

namespace {

using plist::Dict;

using SandboxRoot = bench::BenchRoot;

Dict typical_settings() {
  Dict services;
  for (const char* id : {"com.marlo.Overseer.DNS", "com.marlo.Overseer.Mail", "com.marlo.Overseer.Web",
                         "com.marlo.Overseer.Windows", "com.marlo.Overseer.FTP", "com.marlo.Overseer.Print",
                         "com.marlo.Overseer.VPN", "com.marlo.Overseer.MarloFile"})
    services.set(id, Dict{{"configured", true}});
  Dict notifications{{"emailAddresses", plist::Array{"ops@example.org", "admin@example.org"}},
                     {"diskFullThreshold", 90},
                     {"notifyOnSWUpdate", true},
                     {"notifyOnDiskFull", true},
                     {"notifyOnCertificateExpiry", false}};
  Dict settings{{"ServiceConfig", Dict{{"services", services}, {"consoleLayout", "compact"}}},
                {"serviceConfigForUpgradeChecked", true},
                {"askClientsToIgnoreVantorZeroconfReg", false},
                {"NotificationsSettings", notifications},
                {"hostNameIsSynced", "YES"},
                {"oldHostName", "server.example.org"},
                {"oldDNSName", "server.example.org"},
                {"oldPrimaryIP", "192.0.2.10"}};
  for (int i = 0; i < 24; ++i) settings.set("consoleSetting" + std::to_string(i), "value " + std::to_string(i));
  return settings;
}

void BM_ReadSettingsFile(benchmark::State& state) {
  SandboxRoot root;
  hubwarden::create_settings_lock();
  hubwarden::write_settings_file(typical_settings());
  for (auto _ : state) benchmark::DoNotOptimize(hubwarden::read_settings_file());
}
BENCHMARK(BM_ReadSettingsFile)->Unit(benchmark::kMicrosecond);

void BM_ReadOneKey(benchmark::State& state) {
  SandboxRoot root;
  hubwarden::write_settings_file(typical_settings());
  for (auto _ : state) benchmark::DoNotOptimize(hubwarden::read_key_from_settings_file("ServiceConfig"));
}
BENCHMARK(BM_ReadOneKey)->Unit(benchmark::kMicrosecond);

void BM_UpdateKey(benchmark::State& state) {
  SandboxRoot root;
  hubwarden::write_settings_file(typical_settings());
  int i = 0;
  for (auto _ : state) hubwarden::update_key_in_settings_file({{"counter", ++i}}, "NotificationsSettings");
}
BENCHMARK(BM_UpdateKey)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
