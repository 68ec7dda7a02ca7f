// The service manager: whether a job (by label such as "org.net-snmp.snmpd"
// or by job description path) is enabled, and switching it. Safe from any
// thread.
#pragma once

#include <optional>
#include <string>

namespace platform {

class ServiceManager {
 public:
  virtual ~ServiceManager() = default;
  // true when the job is enabled (will run); false when disabled or unknown.
  virtual bool job_enabled(const std::string& job) = 0;
  // Enables and starts, or disables and stops, the job. Returns 0 or a
  // non-zero status.
  virtual int set_job_enabled(const std::string& job, bool enabled) = 0;
};

}  // namespace platform
