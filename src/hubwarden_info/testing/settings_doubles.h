// Test doubles for the settings and service-configuration tests and their
// benchmark: a module manager whose service modules answer getState from a
// table, and a fixture that installs it with the platform fakes (service
// manager, directory, clock, log) under a sandbox root and returns the
// module-wide objects to their state at load afterwards. Header-only: used by tests and benchmarks alone.
#pragma once

#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "access/acls.h"
#include "access/services_table.h"
#include "platform/directory.h"
#include "platform/fake/fake_clock.h"
#include "platform/fake/fake_directory.h"
#include "platform/fake/fake_log.h"
#include "platform/fake/fake_service_manager.h"
#include "platform/host_services.h"
#include "request/globals.h"
#include "request/operations.h"
#include "request/spine_test_support.h"
#include "settings/settings_file.h"

namespace hubwarden::testing {

class FakeModuleManager : public platform::ModuleManager {
 public:
  struct Call {
    std::string module;
    std::string command;
    std::string user;
  };

  // The module answers getState with {"state": state}.
  void set_state(const std::string& module, const std::string& state) {
    std::lock_guard<std::mutex> l(mu_);
    states_[module] = state;
  }
  // The module answers command with reply.
  void set_reply(const std::string& module, const std::string& command, plist::Dict reply) {
    std::lock_guard<std::mutex> l(mu_);
    replies_[{module, command}] = std::move(reply);
  }
  void set_module_names(std::vector<std::string> names) {
    std::lock_guard<std::mutex> l(mu_);
    names_ = std::move(names);
  }
  std::vector<Call> calls() const {
    std::lock_guard<std::mutex> l(mu_);
    return calls_;
  }
  void clear_calls() {
    std::lock_guard<std::mutex> l(mu_);
    calls_.clear();
  }

  std::vector<std::string> module_names() override {
    std::lock_guard<std::mutex> l(mu_);
    return names_;
  }
  std::optional<plist::Dict> do_command(const plist::Dict& request, const std::string& module,
                                        const std::string& user) override {
    std::lock_guard<std::mutex> l(mu_);
    const std::string* command = request.find_string("command");
    std::string name = command ? *command : "";
    if (record_calls_) calls_.push_back({module, name, user});
    if (auto it = replies_.find({module, name}); it != replies_.end()) return it->second;
    if (name == "getState") {
      if (auto it = states_.find(module); it != states_.end()) return plist::Dict{{"state", it->second}};
    }
    return std::nullopt;
  }
  plist::Dict* get_and_lock_context(const std::string&, int*, bool*) override { return nullptr; }
  void set_and_unlock_context(plist::Dict*, const std::string&, int*) override {}

  // Benchmarks turn the call record off so that it does not grow.
  void set_record_calls(bool record) { record_calls_ = record; }

 private:
  mutable std::mutex mu_;
  std::map<std::string, std::string> states_;
  std::map<std::pair<std::string, std::string>, plist::Dict> replies_;
  std::vector<std::string> names_;
  std::vector<Call> calls_;
  bool record_calls_ = true;
};

// The lines logged at priority, in order.
inline std::vector<std::string> lines_at(const platform::FakeLog& log, platform::Priority priority) {
  std::vector<std::string> out;
  for (const auto& [p, line] : log.entries()) {
    if (p == priority) out.push_back(line);
  }
  return out;
}

// Everything the settings operations reach, installed under a fresh root.
// Module-wide objects start as at load and are reset again at the end.
class SettingsWorld {
 public:
  SettingsWorld()
      : requester_("alice"),
        modules_in_(&modules),
        services_in_(&service_manager),
        clock_in_(&clock),
        log_in_(&log),
        requester_in_(&requester_),
        directory_in_(&directory) {
    reset_globals();
  }
  ~SettingsWorld() { reset_globals(); }

  // What the idle pass numbered 0 makes.
  void make_services_ready() { create_services_table(); }
  void run_under_daemon() { gRunningUnderHubwardend = true; }

  std::string path(const std::string& absolute) const { return root.path(absolute); }

  SandboxRoot root;
  FakeModuleManager modules;
  platform::FakeServiceManager service_manager;
  platform::FakeClock clock;
  platform::FakeLog log;
  platform::FakeDirectory directory;

 private:
  static void reset_globals() {
    reset_services_table_for_testing();
    reset_auth_string_for_testing();
    reset_settings_lock_for_testing();
    reset_acl_name_caches_for_testing();
    gRunningUnderHubwardend = false;
  }

  FixedRequester requester_;
  Installed<platform::ModuleManager> modules_in_;
  Installed<platform::ServiceManager> services_in_;
  Installed<platform::Clock> clock_in_;
  Installed<platform::Log> log_in_;
  Installed<platform::Requester> requester_in_;
  Installed<platform::Directory> directory_in_;
};

}  // namespace hubwarden::testing
