// The server's clock, its network time configuration and its time zone, as
// the settings commands read them (and the clock, as they set it).
//
// Every getter reads the system afresh: the time zone and the time server
// can be changed behind the daemon's back, and a console must see that.
// Safe from any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "plist/value.h"

namespace hubwarden {

// Result of set_time when the clock could not be set.
inline constexpr int kSetTimeFailed = 100023;

// Whole seconds since 1970, as an unsigned 64-bit number.
plist::Value get_time();
// Sets the clock to seconds (no fraction) and announces the change to
// every user session. Returns 0, or kSetTimeFailed after logging the
// failure.
int set_time(uint64_t seconds);

// Whether the time daemon's job is enabled. Serving time and following a
// time server are one daemon, so both questions get the same answer.
bool get_ntp_sync_state();
bool get_ntp_server_state();

// The configured time server: the first "server" line of the NTP
// configuration, else the first NTP= name of the systemd time-sync
// configuration; at most 511 bytes. nullopt when neither names one.
std::optional<std::string> get_ntp_server_name();

// The system time zone's name ("Europe/Paris"), "" when it cannot be told.
std::string get_time_zone_name();

}  // namespace hubwarden
