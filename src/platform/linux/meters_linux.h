// Linux load counters: processor ticks from /proc/stat and the mounted
// volumes from mountinfo with statvfs (interface counters are in
// metered_interfaces.h). The directories are parameters so that tests can point the
// readers at a prepared tree; production uses the defaults.
//
// Every object returned here is safe to call from several threads.
#pragma once

#include <memory>
#include <string>

#include "platform/meters.h"

namespace platform {

// One entry per "cpuN" line of proc_dir/stat, in processor order; running
// follows sys_dir/devices/system/cpu/cpuN/online where that file exists.
// Time waiting for I/O counts as idle; interrupt, soft-interrupt and stolen
// time count as system. read() fails (EIO, with a log line) when the file
// is unreadable, lists no processor, or holds a "cpuN" line with fewer than
// four counters or a counter that is not a number.
std::unique_ptr<ProcessorStats> make_proc_processor_stats(std::string proc_dir = "/proc", std::string sys_dir = "/sys");

// The mounted file systems of proc_dir/self/mountinfo: index 1 is "/", then
// the others in mount order, one entry per device. Labels come from
// dev_dir/disk/by-label; lock and bus facts from sys_dir/dev/block.
std::unique_ptr<Volumes> make_mount_volumes(std::string proc_dir = "/proc", std::string sys_dir = "/sys",
                                            std::string dev_dir = "/dev");

}  // namespace platform
