// Monitoring: the cost of the console's main poll ("getState" with CPU
// averages, volumes and connected users, meters warm; and with averages
// from five minutes to a week over eight days of history) and of the history
// sampling that every idle pass does (meters read afresh, one sample stored
// in the SQLite history store), both on the real /proc, /sys and mount
// table of this machine.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <filesystem>

#include "access/services_table.h"
#include "hubwardend/history_store.h"
#include "platform/clock.h"
#include "platform/linux/metered_interfaces.h"
#include "platform/linux/meters_linux.h"
#include "platform/paths.h"
#include "platform/registry.h"
#include "plist/codec.h"
#include "request/operations.h"

namespace {

using plist::Array;
using plist::Dict;
using plist::Value;

class SteppingClock : public platform::Clock {
 public:
  double time = 1.7e9;
  double step = 0;  // added after every reading
  double now() override {
    double t = time;
    time += step;
    return t;
  }
  std::optional<double> boot_time() override { return std::nullopt; }
  int set_time(double t) override {
    time = t;
    return 0;
  }
};

class ServiceModules : public platform::ModuleManager {
 public:
  std::vector<std::string> module_names() override { return {"hubwarden_mail", "hubwarden_filer"}; }
  std::optional<Dict> do_command(const Dict& request, const std::string& module, const std::string&) override {
    if (module == "hubwarden_mail") return Dict{{"usersArray", Array{"ann", "bob", "cy"}}};
    if (module == "hubwarden_certs") return Dict{{"identityCertificates", Array{Dict{{"name", "server.example.org"}}}}};
    return std::nullopt;
  }
  Dict* get_and_lock_context(const std::string&, int*, bool*) override { return nullptr; }
  void set_and_unlock_context(Dict*, const std::string&, int*) override {}
};

// Everything the monitoring code reaches, installed for one benchmark.
class Host {
 public:
  explicit Host(double clock_step) {
    std::string tmpl = (std::filesystem::temp_directory_path() / "hubwarden-bench-XXXXXX").string();
    dir_ = ::mkdtemp(tmpl.data());
    paths_ = std::make_unique<platform::Paths>(dir_);
    clock_.step = clock_step;
    history_ = hubwardend::open_history_store(dir_ + hubwardend::kHistoryDatabasePath);
    platform::testing::install<platform::Paths>(paths_.get());
    platform::testing::install<platform::Clock>(&clock_);
    platform::testing::install<platform::ProcessorStats>(cpu_.get());
    platform::testing::install<platform::InterfaceStats>(net_.get());
    platform::testing::install<platform::Volumes>(volumes_.get());
    platform::testing::install<platform::HistoryService>(history_.get());
    platform::testing::install<platform::ModuleManager>(&modules_);
    hubwarden::create_services_table();
  }
  ~Host() {
    platform::testing::install<platform::HistoryService>(nullptr);
    platform::testing::install<platform::ModuleManager>(nullptr);
    platform::testing::install<platform::Volumes>(nullptr);
    platform::testing::install<platform::InterfaceStats>(nullptr);
    platform::testing::install<platform::ProcessorStats>(nullptr);
    platform::testing::install<platform::Clock>(nullptr);
    platform::testing::install<platform::Paths>(nullptr);
    history_.reset();
    std::filesystem::remove_all(dir_);
  }
  SteppingClock& clock() { return clock_; }

 private:
  std::string dir_;
  std::unique_ptr<platform::Paths> paths_;
  SteppingClock clock_;
  std::unique_ptr<platform::ProcessorStats> cpu_ = platform::make_proc_processor_stats();
  std::unique_ptr<platform::InterfaceStats> net_ = platform::make_sysfs_interface_stats();
  std::unique_ptr<platform::Volumes> volumes_ = platform::make_mount_volumes();
  std::unique_ptr<platform::HistoryService> history_;
  ServiceModules modules_;
};

Dict cached_info() {
  Dict info;
  for (const char* key : {"state", "systemVersion", "version", "serverVersion", "kernelVersion", "hwSerialNumber",
                          "bootVolume", "computerName", "localcastName", "defaultZone", "hostName", "bootTime"})
    info.set(key, "a typical value of some length");
  info.set("computerInfo", Dict{{"model", "Server"}, {"cpuCount", 8}});
  info.set("interfaceInfosArray", Array(4, Value(Dict{{"name", "en0"}, {"ipAddress", "192.0.2.10"}})));
  info.set("hasMissingKerberizedServices", false);
  info.set("logPaths", Dict{{"system", "/var/log/syslog"}});
  info.set("readWriteSettingsVersion", 1);
  return info;
}

// Times getState with variant after one warming call (the meters' first
// reading); returns the last reply for the counters.
hubwarden::ReplySlot time_get_state(benchmark::State& state, const Value& variant, Dict* context) {
  hubwarden::ReplySlot reply;
  hubwarden::get_server_info(reply, &variant, true, context);
  for (auto _ : state) {
    reply.reset();
    if (hubwarden::get_server_info(reply, &variant, true, context) != nullptr) state.SkipWithError("getState failed");
    benchmark::DoNotOptimize(reply);
  }
  return reply;
}

void BM_GetStateAllDetailsWarm(benchmark::State& state) {
  Host host(0);
  Dict context{{"info", cached_info()}};
  // An hour of history at one sample a minute behind the CPU averages.
  host.clock().time -= 3600;
  host.clock().step = 60;
  for (int i = 0; i < 60; ++i) hubwarden::update_history_data(&context);
  host.clock().step = 0;

  Dict asked{{"CPU Avg Times", Array{5, 15, 60}}, {"GetDiskUsage", true}, {"GetNumConnectedUsers", true}};
  Value variant("withDetails+" + plist::write_xml(Value(asked)));
  hubwarden::ReplySlot reply = time_get_state(state, variant, &context);
  state.counters["volumes"] =
      static_cast<double>(reply && reply->find_array("volumeInfos") ? reply->find_array("volumeInfos")->size() : 0);
}
BENCHMARK(BM_GetStateAllDetailsWarm)->Unit(benchmark::kMicrosecond);

void BM_GetStateWeekOfCpuAverages(benchmark::State& state) {
  Host host(0);
  Dict context{{"info", cached_info()}};
  // Eight days of samples every ten seconds, stored directly: the meters
  // would only repeat themselves.
  host.clock().time -= 8 * 86400;
  host.clock().step = 10;
  Array sample(18, Value(""));
  for (int i = 0; i < 8 * 24 * 360; ++i) {
    sample[0] = Value(static_cast<uint64_t>(i * 37 % 10000));
    platform::get<platform::HistoryService>().update(sample, nullptr);
  }
  host.clock().step = 0;

  Value variant("withDetails+" + plist::write_xml(Value(Dict{{"CPU Avg Times", Array{5, 60, 1440, 10080}}})));
  hubwarden::ReplySlot reply = time_get_state(state, variant, &context);
  const Array* averages = reply ? reply->find_array("cpuHistoryBy100") : nullptr;
  state.counters["averages"] = averages ? static_cast<double>(averages->size()) : 0;
}
BENCHMARK(BM_GetStateWeekOfCpuAverages)->Unit(benchmark::kMillisecond);

void BM_IdlePassHistorySample(benchmark::State& state) {
  // Sixteen seconds between passes: every pass reads the meters afresh.
  Host host(16);
  Dict context;
  for (auto _ : state) {
    if (hubwarden::update_history_data(&context) != nullptr) state.SkipWithError("history update failed");
  }
}
BENCHMARK(BM_IdlePassHistorySample)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
