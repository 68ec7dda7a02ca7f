// Which D-Bus system bus this process talks to, and a connection to it.
//
// At the real root it is the machine's bus. Under a sandbox root it is only
// the bus whose socket lies inside the root, at
// <root>/run/dbus/system_bus_socket (a test starts its own dbus-daemon
// there): a sandbox never reaches the machine's hostnamed, Avahi or
// listeners of our signals. Safe from any thread.
#pragma once

#include <systemd/sd-bus.h>

#include <memory>
#include <optional>
#include <string>

namespace platform {

inline constexpr char kSystemBusSocketPath[] = "/run/dbus/system_bus_socket";

// The bus address ("unix:path=..."), or nullopt when its socket does not
// exist (no bus runs).
std::optional<std::string> system_bus_address();

// Points DBUS_SYSTEM_BUS_ADDRESS at the bus of root (the same socket as
// above), for libraries that find the bus by themselves (avahi-client).
// Call once at start, before any other thread runs: it changes the
// environment.
void export_system_bus_address(const std::string& root);

struct SdBusUnref {
  void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
using SdBusPtr = std::unique_ptr<sd_bus, SdBusUnref>;

// A new connection to the bus above; nullptr when there is none or it
// cannot be reached.
SdBusPtr open_system_bus();

// Whether a service name currently has an owner on the bus (without
// starting it by activation).
bool bus_name_has_owner(sd_bus* bus, const char* name);

}  // namespace platform
