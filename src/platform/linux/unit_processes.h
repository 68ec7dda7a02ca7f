// Tells whether a unit's daemon runs without asking systemd, for machines
// (and sandbox roots) where systemd is not there to ask. Being enabled says
// nothing about running, so the answer comes from the process table alone:
// the live process named by the unit's PIDFile=, or else any live process
// whose command name matches the program of the unit's ExecStart=. The PID
// file and /proc are read under the platform root.
//
// Limits: a daemon that renames itself, or a program that also runs outside
// the unit, fools the command-name match.
//
// A ProcessSnapshot is immutable once taken and safe to share between
// threads; one snapshot can answer for many units, which matters because
// the module asks every service module in a row.
#pragma once

#include <string>
#include <string_view>
#include <unordered_map>

#include "platform/linux/unit_files.h"

namespace platform {

class ProcessSnapshot {
 public:
  // Command names of the processes under the root's /proc now.
  static ProcessSnapshot take();

  // true when some process of that command name is alive (not a zombie).
  bool has_live(std::string_view comm) const;
  size_t size() const { return pids_by_comm_.size(); }

 private:
  std::unordered_multimap<std::string, std::string> pids_by_comm_;
};

bool unit_process_running(const UnitFileInfo& unit, const ProcessSnapshot& processes);

}  // namespace platform
