// The remote desktop switch: turns the VNC server's systemd unit on and off
// through systemctl, keeps the marker file that says remote management is
// on, and writes who may log in to the server's configuration.
//
// What each action does (paths below Options::root):
//   configure   the access settings in /etc/tigervnc/vncserver-config-mandatory
//               and, if the unit's display has no user yet, a line in
//               /etc/tigervnc/vncserver.users; restarts the unit if it runs
//               and the settings changed
//   deactivate  systemctl disable --now UNIT, then removes the marker
//   activate    maps the display to a user when it has none, systemctl enable
//               --now UNIT, then writes the marker /etc/RemoteManagement.launchd
//   restart     systemctl try-restart UNIT
// Files are replaced atomically. systemctl runs with --quiet, as a vector of
// arguments (never through a shell), each run bounded by
// Options::timeout_seconds. A systemctl that fails, times out, or writes to
// its error output fails the run: the caller treats any error output as
// failure, and a quiet systemctl only speaks when something is wrong.
//
// Not thread-safe with another run on the same root (the files are shared).
#pragma once

#include <ostream>

#include "platform/tasks.h"
#include "tools/kickstart/command_line.h"

namespace kickstart {

inline constexpr char kMarkerFile[] = "/etc/RemoteManagement.launchd";
inline constexpr char kMandatoryConfig[] = "/etc/tigervnc/vncserver-config-mandatory";
inline constexpr char kUsersFile[] = "/etc/tigervnc/vncserver.users";

// Runs the actions options asks for and returns the exit status: 0 when all
// succeeded, 1 at the first failure (one line "kickstart: REASON" on err,
// the remaining actions skipped). Progress goes to out only with -verbose.
int run_actions(const Options& options, platform::Tasks& tasks, std::ostream& out, std::ostream& err);

}  // namespace kickstart
