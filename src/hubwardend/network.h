// The interface snapshot and host-name lookups, from getifaddrs, the
// kernel's IPv4 routing table and the resolver.
//
// A snapshot holds one dictionary per IPv4 or IPv6 address of every
// interface that is up and not a loopback, with the keys, in order:
//   "name"                    the kernel's interface name ("enp3s0"), not
//                             the "en0" the network meter shows it as
//   "family"                  "AF_INET" or "AF_INET6"
//   "ipAddress"               numeric address text
//   "isPrimaryIPv4Interface"  true only for the first IPv4 address of the
//                             interface that carries the IPv4 default route
//   "dnsName"                 the reverse-lookup name of the address, or ""
// A complete gathering does the reverse lookups (in parallel, bounded by a
// deadline) and remembers their answers; a quick one does none and reuses
// what an earlier complete gathering of this process found.
//
// An interface whose name is not UTF-8 is left out, and logged once.
//
// Resolver calls that outlive their deadline are left to finish on their
// own threads; the caller never waits longer than asked. Safe from several
// threads.
#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/host_services.h"

namespace hubwardend {

// The interface of the IPv4 default route in a /proc/net/route table (the
// first route with destination and mask 0), or nullopt.
std::optional<std::string> default_route_interface(const std::string& route_table);

class LinuxNetwork : public platform::Network {
 public:
  // route_file: the kernel's IPv4 routing table. lookup_deadline bounds the
  // reverse lookups of one complete gathering.
  explicit LinuxNetwork(std::string route_file = "/proc/net/route",
                        std::chrono::milliseconds lookup_deadline = std::chrono::seconds(5));

  plist::Array get_interfaces_info(bool complete) override;
  // nullopt: this host's name (gethostname) and its canonical name, without
  // repeats. An address: the names its reverse lookup gives. Empty when
  // nothing is known within timeout_seconds.
  std::vector<std::string> host_names_for_address(const std::optional<std::string>& address,
                                                  double timeout_seconds) override;

 private:
  const std::string route_file_;
  const std::chrono::milliseconds lookup_deadline_;
  std::mutex mu_;
  std::map<std::string, std::string> dns_names_;  // address -> name; guarded by mu_
  std::set<std::string> reported_names_;          // unusable names already logged; guarded by mu_
};

}  // namespace hubwardend
