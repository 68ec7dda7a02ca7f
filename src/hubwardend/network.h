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
//   "hardwareAddress"         the interface's link-layer address
//                             ("52:54:00:12:34:56"), or "" when it has none
// A complete gathering also gives each address its reverse-lookup name.
//
// Name lookups run on a small resolver pool (resolver_pool.h), never on the
// caller's thread, and their answers are cached for a while. A one-shot
// host waits for them up to a deadline. A long-running host never waits:
// it answers from the cache at once (an address not looked up yet has no
// name) and lets the pool refresh what is missing or stale, so a request
// or an idle pass holding the context is never held up by the resolver.
//
// An interface whose name is not UTF-8 is left out, and logged once.
//
// Safe from several threads.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "hubwardend/resolver_pool.h"
#include "platform/host_services.h"

namespace hubwardend {

// The interface of the IPv4 default route in a /proc/net/route table (the
// first route with destination and mask 0), or nullopt.
std::optional<std::string> default_route_interface(const std::string& route_table);

// The names of address (nullopt: this host), as the system resolver gives
// them; may block for as long as the resolver takes.
using NameLookup = std::function<std::vector<std::string>(const std::optional<std::string>& address)>;

// The system resolver: for nullopt, gethostname and its canonical name
// without repeats; for an address, the name its reverse lookup gives.
std::vector<std::string> system_name_lookup(const std::optional<std::string>& address);

struct NetworkOptions {
  std::string route_file = "/proc/net/route";  // the kernel's IPv4 routing table
  // How long a one-shot host waits for the lookups of a complete gathering.
  std::chrono::milliseconds lookup_deadline = std::chrono::seconds(5);
  // The long-running host: answer from the cache, never wait.
  bool answer_from_cache = false;
  // How long an answer (a name, or the knowledge that there is none) is
  // used before it is looked up again.
  std::chrono::seconds cache_lifetime = std::chrono::minutes(5);
  size_t resolver_threads = 4;
  size_t max_queued_lookups = 64;
  NameLookup lookup;  // empty: system_name_lookup
};

class LinuxNetwork : public platform::Network {
 public:
  explicit LinuxNetwork(NetworkOptions options);
  explicit LinuxNetwork(std::string route_file = "/proc/net/route",
                        std::chrono::milliseconds lookup_deadline = std::chrono::seconds(5));

  plist::Array get_interfaces_info(bool complete) override;
  // The names of address (nullopt: this host) from the cache when fresh;
  // otherwise a one-shot host waits up to timeout_seconds for a lookup and
  // a long-running one answers with what the cache has, possibly nothing.
  std::vector<std::string> host_names_for_address(const std::optional<std::string>& address,
                                                  double timeout_seconds) override;

 private:
  struct Cached {
    std::vector<std::string> names;
    std::chrono::steady_clock::time_point expires;
  };
  // What every lookup shares, kept alive by lookups still in the pool.
  struct Lookups;

  // Answers for keys (an address, or "" for this host): cached ones at
  // once; the rest looked up in the pool, waited for until deadline unless
  // the options say never to wait. A key without an answer is absent.
  std::map<std::string, std::vector<std::string>> names_for(const std::vector<std::string>& keys,
                                                            std::chrono::steady_clock::time_point deadline);

  const NetworkOptions options_;
  std::shared_ptr<Lookups> lookups_;
  std::unique_ptr<ResolverPool> pool_;  // after lookups_: its jobs refer to them
  std::mutex mu_;
  std::set<std::string> reported_names_;  // unusable names already logged; guarded by mu_
};

}  // namespace hubwardend
