// Factories for the Linux implementations of the basic platform services:
// system log, clock, tool runner, host facts, hardware variables and the
// system configuration store. The host creates one of each at start and
// installs them with platform::install.
#pragma once

#include <memory>
#include <string>

#include "platform/clock.h"
#include "platform/hardware.h"
#include "platform/host_info.h"
#include "platform/log.h"
#include "platform/sysconfig.h"
#include "platform/tasks.h"

namespace platform {

// syslog(3) with the ident "hubwardend".
std::unique_ptr<Log> make_syslog_log();

// Where a sandbox root keeps its own clock (below the root).
inline constexpr char kSandboxClockPath[] = "/var/db/hubwarden/sandbox-clock.plist";

// The real-time clock; boot time from /proc/stat. Under a sandbox root
// (platform Paths installed and not "/") the sandbox's own clock instead:
// make_sandbox_clock with the root's kSandboxClockPath.
std::unique_ptr<Clock> make_system_clock();

// A clock that never touches the machine's: set_time stores the difference
// to the real time in offset_file (atomically; EIO when that fails), now()
// and boot_time() are the real ones shifted by it.
std::unique_ptr<Clock> make_sandbox_clock(std::string offset_file);

// Runs tools as child processes with piped standard streams.
std::unique_ptr<Tasks> make_process_tasks();

// uname, /etc/os-release and the installed server version record (both
// files through platform::resolve).
std::unique_ptr<HostInfo> make_linux_host_info();

// Hardware facts read from proc_dir and sys_dir, so tests can point them at
// a sandbox.
std::unique_ptr<Hardware> make_linux_hardware(std::string proc_dir = "/proc", std::string sys_dir = "/sys");

// Computer name (PRETTY_HOSTNAME of /etc/machine-info), local host name
// (Avahi's) and host name (/etc/hostname), read and written through
// platform::resolve, and through hostnamed and Avahi on the root's own
// system bus when they run.
std::unique_ptr<SystemConfiguration> make_linux_sysconfig();

}  // namespace platform
