// Watches the systemd units behind the host's services and tells the rest
// of the daemon when one of them starts or stops, whoever switched it (an
// administrator with systemctl, a crash, a restart policy), by posting
// "setState" on the in-process notification centre with the unit's name as
// the object. Switches the daemon makes itself post on their own.
//
// Listens on the system bus the root allows (under a sandbox root only the
// root's own bus) for the unit objects' property changes, asking the
// service manager to send them (Subscribe). A burst of changes (a restart
// is stop, start, active) gives one post per unit after a short settling
// delay. Posts happen on the run loop's thread.
//
// Thread-safety: create and destroy on any thread; everything else runs on
// the run loop.
#pragma once

#include <chrono>
#include <memory>
#include <set>
#include <string>

#include "platform/run_loop.h"

namespace platform {

class UnitStateWatch {
 public:
  virtual ~UnitStateWatch() = default;
};

// Starts watching units (names with their type suffix, "ssh.service") on
// loop. nullptr when there is no bus to listen on or units is empty; the
// daemon then runs without the watch. loop must outlive the watch.
std::unique_ptr<UnitStateWatch> make_unit_state_watch(
    RunLoop* loop, std::set<std::string> units, std::chrono::milliseconds settle = std::chrono::milliseconds(500));

}  // namespace platform
