// The on/off switches of the system services that have no administration
// module of their own: the SSH daemon, the file sync agent (an SSH-based
// daemon) and remote desktop management.
//
// Getters answer fresh on every call and report false when they cannot
// tell (no service manager installed). Setters return 0 on success or one
// of the status codes below; they never throw. All are safe from any
// thread, though two setters of the same switch racing each other leave
// the switch as the last one to finish left it.
#pragma once

namespace hubwarden {

// Setter status codes.
constexpr int kSshEnableFailed = 100026;
constexpr int kSshDisableFailed = 100027;
constexpr int kScreenlinkEnableFailed = 100029;
constexpr int kScreenlinkDisableFailed = 100030;
constexpr int kFileSyncEnableFailed = 100031;
constexpr int kFileSyncDisableFailed = 100032;

// Whether the SSH daemon's job is enabled, asked by its label.
bool get_ssh_state();
// Switches the SSH daemon through its job description, and only when the
// label says it is not already as requested. kSshEnableFailed or
// kSshDisableFailed when the service manager refuses or is missing.
int set_ssh_state(bool on);

// Whether the file sync agent's job is enabled.
bool get_filesyncd_state();
// Switches the file sync agent without looking at its state first.
// kFileSyncEnableFailed or kFileSyncDisableFailed on failure.
int set_filesyncd_state(bool on);

// Whether remote management is active: its marker file exists under the
// root.
bool get_screenlink_state();
// Turning on (when the marker is absent) first gives the members of
// "admin" every remote management right through the screenlink groups,
// then activates and configures the service with the kickstart tool;
// turning off (when the marker is present) deactivates it. A switch
// already in the requested state returns 0 at once. A tool that fails,
// hangs past its limit or writes to its error output gives
// kScreenlinkEnableFailed or kScreenlinkDisableFailed. Failures of the
// group step are logged and do not fail the switch.
int set_screenlink_state(bool on);

}  // namespace hubwarden
