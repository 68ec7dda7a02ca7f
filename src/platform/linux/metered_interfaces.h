// The interfaces the network meter counts on Linux, with their byte
// counters, read from sysfs.
//
// The meters count Ethernet-class interfaces, which they recognise by the
// prefix "en". Linux names them eth0, enp3s0, wlan0 or bond0, so the reader
// presents the interfaces it meters as "en0", "en1", ... in order of their
// interface index and reports the kernel's name beside it. The numbering
// depends only on the set of metered interfaces, so it survives a restart
// of the daemon as long as that set is unchanged. Each reader logs the
// mapping ("metering network interfaces enp3s0 as en0, ...") at notice
// priority when it first reads and whenever it changes.
//
// Metered by default: every interface that is administratively up with an
// operational state of "up" (or "unknown", for drivers that never report
// one), of the Ethernet link type, and backed by hardware (a "device" link
// in sysfs) or a bond. Left out: loopback; bond members (their traffic is
// the bond's); virtual links without hardware behind them, such as veth
// pairs, bridges, tun/tap devices, VLANs, macvlans and dummies, whose
// traffic is either counted again on a physical link or never leaves the
// machine. An administrator meters more by listing names or shell patterns
// ("veth*", "wg0") under "meteredInterfaces" in the host configuration;
// listed interfaces need only be up and not loopback.
//
// An interface whose name is longer than the kernel allows (15 bytes) or is
// not UTF-8 is never metered; it is reported once in the system log.
//
// Safe to call from several threads.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/meters.h"

namespace platform {

// The key of the host configuration that lists extra interfaces.
inline constexpr const char kMeteredInterfacesKey[] = "meteredInterfaces";

// The interfaces under sys_dir/class/net chosen as described above, plus
// those matching a pattern of extra (fnmatch(3) patterns; a plain name
// matches itself). read() fails only when sys_dir/class/net cannot be
// listed; an interface whose counters cannot be read (it vanished during
// the reading) is left out without renumbering the others.
std::unique_ptr<InterfaceStats> make_sysfs_interface_stats(std::vector<std::string> extra = {},
                                                           std::string sys_dir = "/sys");

// The "meteredInterfaces" array of the host configuration: the shipped file,
// then the administrator's, both read under the root; the administrator's
// list replaces the shipped one. Empty when neither lists any. An entry that
// is not a non-empty string, or a value that is not an array, is logged and
// ignored.
std::vector<std::string> load_metered_interfaces();

}  // namespace platform
