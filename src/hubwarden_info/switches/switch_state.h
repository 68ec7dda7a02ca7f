// Whether the three system services without an administration module of
// their own are switched on: the SSH daemon, remote desktop management and
// the file sync agent. Each answer comes fresh from the service manager;
// safe from any thread. A machine without a service manager reports them off.
#pragma once

namespace hubwarden {

bool get_ssh_state();
bool get_screenlink_state();
bool get_filesyncd_state();

}  // namespace hubwarden
