// An in-memory service manager for tests: jobs are enabled or not as the
// test says, switching them can be made to fail, and every call is recorded
// so that tests can check what the code under test asked for. It also
// answers unit questions (installed, active state) for the host's service
// modules. Safe from several threads.
#pragma once

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "platform/linux/unit_inspector.h"
#include "platform/service_manager.h"

namespace platform {

class FakeServiceManager : public ServiceManager, public UnitInspector {
 public:
  struct SetCall {
    std::string job;
    bool enabled;
    bool operator==(const SetCall&) const = default;
  };

  // Jobs not set here are unknown: not enabled, and switching them fails.
  void set_job(const std::string& job, bool enabled);
  // Makes every later set_job_enabled of job return status (0 clears).
  void fail_job(const std::string& job, int status);
  // An installed unit doing state ("active", "activating", ...).
  void set_unit(const std::string& unit, const std::string& state);

  bool job_enabled(const std::string& job) override;
  int set_job_enabled(const std::string& job, bool enabled) override;
  bool unit_installed(const std::string& unit) override;
  std::string active_state(const std::string& unit) override;

  std::vector<std::string> queries() const;      // jobs asked by job_enabled, in order
  std::vector<SetCall> set_calls() const;        // set_job_enabled calls, in order

 private:
  mutable std::mutex mu_;
  std::map<std::string, bool> jobs_;
  std::map<std::string, int> failures_;
  std::map<std::string, std::string> units_;
  std::vector<std::string> queries_;
  std::vector<SetCall> set_calls_;
};

}  // namespace platform
