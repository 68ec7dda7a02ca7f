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

// The real-time clock; boot time from /proc/stat.
std::unique_ptr<Clock> make_system_clock();

// Runs tools as child processes with piped standard streams.
std::unique_ptr<Tasks> make_process_tasks();

// uname, /etc/os-release and the installed server version record (both
// files through platform::resolve).
std::unique_ptr<HostInfo> make_linux_host_info();

// Hardware facts read from proc_dir and sys_dir, so tests can point them at
// a sandbox.
std::unique_ptr<Hardware> make_linux_hardware(std::string proc_dir = "/proc", std::string sys_dir = "/sys");

// Computer and local host names from /etc/machine-info and /etc/hostname
// (through platform::resolve).
std::unique_ptr<SystemConfiguration> make_linux_sysconfig();

}  // namespace platform
