// The update tool's four jobs: scan, install, ignore, reset the ignore
// list. Each reports progress on out (unless quiet), writes the status file
// when one was named, and returns the process exit status: 0 on success, 1
// with one line on err when apt or a file failed, 2 for unusable names.
// Not thread-safe: one job per process.
#pragma once

#include <ostream>
#include <vector>

#include "platform/tasks.h"
#include "plist/value.h"
#include "tools/softwareupdate/apt_output.h"
#include "tools/softwareupdate/command_line.h"
#include "tools/softwareupdate/ignore_list.h"

namespace softwareupdate {

// Runs the job options.mode names; pid is what the status file reports as
// the job's process.
int run_job(const Options& options, platform::Tasks& tasks, int pid, std::ostream& out, std::ostream& err);

// The status entries of a scan, one per upgrade in apt's order, with the
// keys "identifier", "name", "version", "sizeInKB", "restartRequired",
// "ignored" and, when apt has one, "description". Sizes come from the
// record of the candidate version, rounded up to whole KiB (0 when
// unknown).
plist::Array describe_upgrades(const std::vector<PendingUpgrade>& upgrades, const std::vector<PackageRecord>& records,
                               const IgnoreList& ignored);

}  // namespace softwareupdate
