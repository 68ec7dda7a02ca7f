// What the server advertises over DNS-SD: the configured server's record
// ("_vantor._tcp", its running services in the TXT data) or, before setup is
// done, the waiting-for-setup record ("_svr-unconfig._tcp", a description of
// the machine). Both go on port 311. Calling either register function again
// with nothing changed costs no network traffic: it compares the new TXT
// dictionary with the one published and stops when they are equal.
//
// Thread-safety: safe from any thread, but the compare-and-replace steps of
// one register function are not atomic; the daemon calls them from one
// thread at a time. The host-name lookup may wait up to 10 seconds.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "plist/value.h"

namespace hubwarden {

inline constexpr uint64_t kAdvertisedPort = 311;
inline constexpr const char* kConfiguredServiceType = "_vantor._tcp";
inline constexpr const char* kWaitingForSetupServiceType = "_svr-unconfig._tcp";

// Withdraws the waiting-for-setup record and publishes the configured one
// with the running services, unless it is published already with the same
// TXT dictionary. context may be null.
void register_services_with_zeroconf(bool ask_clients_to_ignore, plist::Dict* context);

// Withdraws the configured record and publishes the waiting-for-setup one,
// unless published already with the same TXT dictionary. Without a routable
// address nothing is published.
void register_server_waiting_for_setup_with_zeroconf(plist::Dict* context);

// The waiting-for-setup TXT dictionary, or nullopt when the primary network
// service has no IPv4 address or only a link-local (169.x) one.
std::optional<plist::Dict> build_waiting_for_setup_dict(plist::Dict* context);

// What the waiting-for-setup record says about the machine; a value that
// could not be found is nullopt.
struct MachineDescription {
  std::optional<std::string> host_name;
  std::optional<std::string> model_name;
  std::optional<std::string> ip_address;
  std::optional<std::string> mac_address;
  std::optional<std::string> product_name;
  std::optional<std::string> product_version;
};
// The TXT dictionary for a description: "hostname", "modelname",
// "ipaddress", "macaddress", "productname", "productversion", ending at the
// first missing value; nullopt without a routable IPv4 address.
std::optional<plist::Dict> waiting_for_setup_dict(const MachineDescription& machine);

// The DNS name to advertise among names: the first dotted name other than
// "localhost" that ends neither in ".local" nor in ".private"; failing that
// the last dotted one; failing that "".
std::string choose_zeroconf_host_name(const std::vector<std::string>& names);
// choose_zeroconf_host_name over the names of this host's primary address
// (of the host itself when it has none), waiting at most 10 seconds; ""
// when nothing is found.
std::string hostNameForZeroconf();

// Publishes type on port 311 without TXT data through the general
// registrar, for other code of the daemon.
void register_with_zeroconf(const std::string& type);
void register_with_zeroconf_details(const std::string& type, uint64_t port, const std::optional<plist::Dict>& txt);

}  // namespace hubwarden
