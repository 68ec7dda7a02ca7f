// Test doubles for the monitoring tests: a clock the test moves, a module
// manager that records what it is asked and answers from a table, and a
// fixture that installs them with the fake meters and the in-memory history
// service. Header-only: used by *_test.cpp files alone.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/clock.h"
#include "platform/fake/fake_history.h"
#include "platform/fake/fake_meters.h"
#include "platform/host_services.h"
#include "request/globals.h"
#include "request/spine_test_support.h"

namespace hubwarden::testing {

class ManualClock : public platform::Clock {
 public:
  double time = 1.7e9;
  double now() override { return time; }
  std::optional<double> boot_time() override { return std::nullopt; }
  int set_time(double t) override {
    time = t;
    return 0;
  }
};

struct ModuleCall {
  std::string module;
  plist::Dict request;
  std::string user;
};

class TableModuleManager : public platform::ModuleManager {
 public:
  std::map<std::string, plist::Dict> replies;  // module name -> reply; absent: no module
  std::vector<ModuleCall> calls;

  std::vector<std::string> module_names() override {
    std::vector<std::string> names;
    for (const auto& [name, reply] : replies) names.push_back(name);
    return names;
  }
  std::optional<plist::Dict> do_command(const plist::Dict& request, const std::string& module,
                                        const std::string& user) override {
    calls.push_back({module, request, user});
    auto it = replies.find(module);
    if (it == replies.end()) return std::nullopt;
    return it->second;
  }
  plist::Dict* get_and_lock_context(const std::string&, int*, bool*) override { return nullptr; }
  void set_and_unlock_context(plist::Dict*, const std::string&, int*) override {}

  std::vector<std::string> modules_asked() const {
    std::vector<std::string> out;
    for (const ModuleCall& c : calls) out.push_back(c.module);
    return out;
  }
};

// Installs a sandbox root, a clock, the fake meters, the in-memory history service and a
// module manager for the test's lifetime, and returns the module-wide
// objects to their state at load before and after.
class MonitorTest : public ::testing::Test {
 protected:
  MonitorTest()
      : clock_slot_(&clock_),
        cpu_slot_(&cpu_),
        net_slot_(&net_),
        volumes_slot_(&volumes_),
        history_slot_(&history_),
        modules_slot_(&modules_) {
    reset_module_globals_for_testing();
    history_.now = clock_.time;
  }
  ~MonitorTest() override { reset_module_globals_for_testing(); }

  // Moves both the module's clock and the history service's.
  void advance(double seconds) {
    clock_.time += seconds;
    history_.now = clock_.time;
  }

  static platform::ProcessorTicks ticks(uint32_t user, uint32_t system, uint32_t idle, uint32_t nice = 0,
                                        bool running = true) {
    platform::ProcessorTicks t;
    t.user = user;
    t.system = system;
    t.idle = idle;
    t.nice = nice;
    t.running = running;
    return t;
  }

  static platform::FakeVolume volume(std::string name, uint64_t total, uint64_t free, bool internal = true,
                                     bool external = false) {
    platform::FakeVolume v;
    v.info.name = name;
    v.info.mount_point = "/Volumes/" + name;
    v.info.total_bytes = total;
    v.info.free_bytes = free;
    v.attributes = platform::VolumeAttributes{internal, external};
    return v;
  }

  SandboxRoot root_;
  ManualClock clock_;
  platform::FakeProcessorStats cpu_;
  platform::FakeInterfaceStats net_;
  platform::FakeVolumes volumes_;
  platform::FakeHistoryService history_;
  TableModuleManager modules_;
  Installed<platform::Clock> clock_slot_;
  Installed<platform::ProcessorStats> cpu_slot_;
  Installed<platform::InterfaceStats> net_slot_;
  Installed<platform::Volumes> volumes_slot_;
  Installed<platform::HistoryService> history_slot_;
  Installed<platform::ModuleManager> modules_slot_;
};

}  // namespace hubwarden::testing
