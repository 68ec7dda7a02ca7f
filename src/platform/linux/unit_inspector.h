// Questions about single systemd units that the host's service modules ask:
// whether a unit is installed and what it is doing now. Kept apart from
// ServiceManager, which speaks in jobs, so that tests can answer them from
// a fake. Implementations are safe from several threads.
#pragma once

#include <string>

namespace platform {

class UnitInspector {
 public:
  virtual ~UnitInspector() = default;
  // true when a unit file for unit exists (a masked unit counts).
  virtual bool unit_installed(const std::string& unit) = 0;
  // The unit's activity in systemd's words: "active", "reloading",
  // "inactive", "failed", "activating", "deactivating". "inactive" when it
  // cannot be told.
  virtual std::string active_state(const std::string& unit) = 0;
};

}  // namespace platform
