// The Linux advertiser: DNS-SD records published through the Avahi daemon
// (avahi-client over the D-Bus system bus named by DBUS_SYSTEM_BUS_ADDRESS),
// driven by the daemon's run loop.
//
// Every Avahi call runs on the loop thread; publish and handle destruction
// from other threads are posted to the loop in the order they are made, so
// a record dropped before another is published is withdrawn before the
// other appears. Each record gets its own entry group, named after Avahi's
// host name; on a name collision it takes Avahi's next alternative name.
//
// Avahi (or the bus) not running is survived: it is logged once, and every
// record whose handle still lives is published when Avahi comes (back).
// Destroying the advertiser withdraws every record; handles that outlive it
// do nothing any more.
//
// Safe from any thread.
#pragma once

#include <cstdint>
#include <memory>

#include "platform/dns_sd.h"
#include "platform/run_loop.h"

namespace platform {

// An advertiser on loop. With a null loop (a host without a long-running
// loop, such as the one-shot command line) nothing is ever published: the
// first publish logs that, and handles do nothing.
std::unique_ptr<Advertiser> make_avahi_advertiser(RunLoop* loop);

// Calls made into Avahi by every advertiser of the process since it
// started (clients, entry groups, services, commits), so that a benchmark
// can show that unchanged advertising costs none.
uint64_t avahi_call_count();

}  // namespace platform
