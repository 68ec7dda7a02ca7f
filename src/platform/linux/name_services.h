// The running services that own the machine's names, reached over the
// system bus: systemd-hostnamed (pretty, static and kernel host names) and
// the Avahi daemon (the multicast DNS host name). Each call is one
// round trip on the given bus and fails (false / nullopt) when the service
// has no owner on the bus, refuses, or the bus is null. Safe from any
// thread, one bus per thread.
#pragma once

#include <systemd/sd-bus.h>

#include <optional>
#include <string>

namespace platform::name_services {

bool hostnamed_running(sd_bus* bus);
// Stores the pretty host name (hostnamed writes /etc/machine-info).
bool hostnamed_set_pretty_host_name(sd_bus* bus, const std::string& name);
// Stores the static host name (hostnamed writes /etc/hostname).
bool hostnamed_set_static_host_name(sd_bus* bus, const std::string& name);
// Sets the kernel's (transient) host name.
bool hostnamed_set_host_name(sd_bus* bus, const std::string& name);

bool avahi_running(sd_bus* bus);
// Renames the host on the local link at once. Asking for the name Avahi
// already uses counts as success.
bool avahi_set_host_name(sd_bus* bus, const std::string& name);
// The label Avahi publishes the host under (without ".local").
std::optional<std::string> avahi_host_name(sd_bus* bus);

}  // namespace platform::name_services
