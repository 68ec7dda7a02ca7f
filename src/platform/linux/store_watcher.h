// The system configuration store's change watch on Linux. Names live in
// files that other programs replace atomically, so a session watches the
// files' directories (a watch on the file itself would stay with the old
// inode) and picks out the names it cares about:
//   computer name -> <root>/etc/machine-info
//   host names    -> <root>/etc/hostname, <root>/etc/avahi/avahi-daemon.conf,
//                    and, at the real root, the kernel's host name
//   addresses     -> a routing-netlink socket (links and IPv4/IPv6 addresses)
// Whatever arrives together is reported as one change.
//
// A directory that does not exist is not watched (a sandbox root may lack
// /etc/avahi); a session with nothing at all to watch runs for no time.
// Sessions follow StoreSession's threading rules; destroy a scheduled
// session on its loop's thread (or after the loop stopped).
#pragma once

#include <memory>

#include "platform/sysconfig.h"

namespace platform {

// A watcher whose paths resolve through the installed Paths at the time a
// session opens.
std::unique_ptr<StoreWatcher> make_linux_store_watcher();

}  // namespace platform
