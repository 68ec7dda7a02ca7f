// Tells whether a unit's daemon runs without asking systemd, for machines
// (and sandbox roots) where systemd is not there to ask. Being enabled says
// nothing about running, so the answer comes from the process table alone:
// the live process named by the unit's PIDFile=, or else any process whose
// command name matches the program of the unit's ExecStart=. Both the PID
// file and /proc are read under the platform root.
//
// Limits: a daemon that renames itself, or a program that also runs outside
// the unit, fools the command-name match. Safe from several threads.
#pragma once

#include "platform/linux/unit_files.h"

namespace platform {

bool unit_process_running(const UnitFileInfo& unit);

}  // namespace platform
