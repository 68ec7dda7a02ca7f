// The Linux service manager: jobs of the host configuration (job_map.h) are
// answered by the systemd units behind them.
//
// Two ways to reach systemd:
//  - over D-Bus (sd-bus) when systemd runs and the root is "/": unit-file
//    state, enabling and disabling, starting and stopping, and the units'
//    live activity all come from systemd itself. One system-bus connection
//    is kept open, used under a mutex, and reopened when it breaks; if the
//    bus cannot be reached at all, questions are answered from the unit
//    files instead.
//  - from the unit files under the root (unit_files.h) otherwise: enabling
//    and disabling only edit the links, and a unit counts as active only when
//    the process table shows its daemon (unit_processes.h) — being enabled is
//    not evidence that it runs. One listing of the process table serves
//    every question asked within process_table_max_age, since callers ask
//    about all service modules in a row; a listed process is still checked
//    to be alive, so only daemons started since the listing are missed.
//
// A job's unit is the first of its candidates that is installed, chosen
// afresh on every call so that a package installed later is picked up.
// Safe to call from several threads.
#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <string>

#include "platform/linux/job_map.h"
#include "platform/linux/unit_inspector.h"
#include "platform/linux/unit_processes.h"
#include "platform/service_manager.h"

namespace platform {

class SystemdServiceManager : public ServiceManager, public UnitInspector {
 public:
  enum class Mode { kBus, kUnitFiles };

  SystemdServiceManager(HostServiceMap map, Mode mode,
                        std::chrono::milliseconds process_table_max_age = std::chrono::seconds(1));
  ~SystemdServiceManager() override;
  SystemdServiceManager(const SystemdServiceManager&) = delete;
  SystemdServiceManager& operator=(const SystemdServiceManager&) = delete;

  // true when the job's unit is enabled; false for an unknown job, a job
  // with no installed unit, or a masked or static unit.
  bool job_enabled(const std::string& job) override;
  // Returns 0, ENOENT when no unit of the job is installed, or the errno of
  // the failure (EPERM for a masked unit, and in kBus mode under a sandbox
  // root, which must never switch the machine's units; see unit_files.h for
  // the rest).
  int set_job_enabled(const std::string& job, bool enabled) override;

  bool unit_installed(const std::string& unit) override;
  std::string active_state(const std::string& unit) override;

  // The first installed candidate unit of job, or "" when there is none.
  std::string unit_for_job(const std::string& job);

  Mode mode() const { return mode_; }
  const HostServiceMap& host_service_map() const { return map_; }

 private:
  class Bus;

  std::shared_ptr<const ProcessSnapshot> process_table();

  const HostServiceMap map_;
  const Mode mode_;
  const std::chrono::milliseconds process_table_max_age_;
  std::unique_ptr<Bus> bus_;  // only in kBus mode

  std::mutex process_table_mu_;
  std::shared_ptr<const ProcessSnapshot> process_table_;       // guarded by process_table_mu_
  std::chrono::steady_clock::time_point process_table_taken_;  // guarded by process_table_mu_
};

// kBus when systemd runs (sd_booted() > 0) and the installed root is "/",
// else kUnitFiles. REQUIRES: platform Paths installed.
SystemdServiceManager::Mode default_service_manager_mode();

// The manager for the installed root with the host configuration in effect.
std::unique_ptr<ServiceManager> make_systemd_service_manager();
// The same, for owners that also hand it to the service modules.
std::shared_ptr<SystemdServiceManager> make_shared_systemd_service_manager();

}  // namespace platform
