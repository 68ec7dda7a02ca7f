// Interface snapshot from getifaddrs; name lookups on the resolver pool,
// cached.
#include "hubwardend/network.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <thread>

#include "platform/file_util.h"
#include "platform/log.h"
#include "platform/utf8.h"

namespace hubwardend {
namespace {

struct Address {
  std::string name;
  bool ipv4 = false;
  std::string text;
  sockaddr_storage storage{};
  socklen_t length = 0;
};

// The link-layer address of a packet-family entry ("52:54:00:12:34:56"),
// or "" for a link without one (a tunnel shows none or all zeros).
std::string hardware_address(const struct sockaddr_ll* link) {
  static const char kHex[] = "0123456789abcdef";
  std::string text;
  bool all_zero = true;
  for (int i = 0; i < link->sll_halen && i < 8; ++i) {
    if (i) text.push_back(':');
    text.push_back(kHex[link->sll_addr[i] >> 4]);
    text.push_back(kHex[link->sll_addr[i] & 0xf]);
    if (link->sll_addr[i]) all_zero = false;
  }
  return all_zero ? "" : text;
}

// The addresses of the interfaces that are up, loopback aside. Interfaces
// whose names are not UTF-8 cannot be named in a snapshot; they are left
// out and their names added to *unnamable.
// Also gives the link-layer address of each such interface in *hardware.
std::vector<Address> up_addresses(std::set<std::string>* unnamable, std::map<std::string, std::string>* hardware) {
  std::vector<Address> out;
  struct ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return out;
  for (struct ifaddrs* it = list; it; it = it->ifa_next) {
    if (!it->ifa_addr || !it->ifa_name) continue;
    if (!(it->ifa_flags & IFF_UP) || (it->ifa_flags & IFF_LOOPBACK)) continue;
    int family = it->ifa_addr->sa_family;
    if (family == AF_PACKET) {
      (*hardware)[it->ifa_name] = hardware_address(reinterpret_cast<const struct sockaddr_ll*>(it->ifa_addr));
      continue;
    }
    if (family != AF_INET && family != AF_INET6) continue;
    if (!platform::is_valid_utf8(it->ifa_name)) {
      unnamable->insert(it->ifa_name);
      continue;
    }
    Address a;
    a.name = it->ifa_name;
    a.ipv4 = family == AF_INET;
    a.length = a.ipv4 ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
    std::memcpy(&a.storage, it->ifa_addr, a.length);
    char text[INET6_ADDRSTRLEN] = {};
    const void* raw = a.ipv4 ? static_cast<const void*>(&reinterpret_cast<sockaddr_in*>(&a.storage)->sin_addr)
                             : static_cast<const void*>(&reinterpret_cast<sockaddr_in6*>(&a.storage)->sin6_addr);
    if (!inet_ntop(family, raw, text, sizeof text)) continue;
    a.text = text;
    // Link-local IPv6 addresses are only meaningful with their zone.
    if (!a.ipv4 && IN6_IS_ADDR_LINKLOCAL(&reinterpret_cast<sockaddr_in6*>(&a.storage)->sin6_addr))
      a.text += "%" + a.name;
    out.push_back(std::move(a));
  }
  freeifaddrs(list);
  return out;
}

std::optional<std::string> reverse_lookup(const sockaddr* address, socklen_t length) {
  char host[NI_MAXHOST] = {};
  if (getnameinfo(address, length, host, sizeof host, nullptr, 0, NI_NAMEREQD) != 0) return std::nullopt;
  return std::string(host);
}

bool parse_address(const std::string& text, sockaddr_storage* storage, socklen_t* length) {
  std::memset(storage, 0, sizeof *storage);
  auto* v4 = reinterpret_cast<sockaddr_in*>(storage);
  if (inet_pton(AF_INET, text.c_str(), &v4->sin_addr) == 1) {
    v4->sin_family = AF_INET;
    *length = sizeof(sockaddr_in);
    return true;
  }
  auto* v6 = reinterpret_cast<sockaddr_in6*>(storage);
  std::string bare = text.substr(0, text.find('%'));
  if (inet_pton(AF_INET6, bare.c_str(), &v6->sin6_addr) == 1) {
    v6->sin6_family = AF_INET6;
    if (bare.size() != text.size()) v6->sin6_scope_id = if_nametoindex(text.substr(bare.size() + 1).c_str());
    *length = sizeof(sockaddr_in6);
    return true;
  }
  return false;
}

std::chrono::steady_clock::time_point deadline_after(double seconds) {
  if (!(seconds > 0)) seconds = 0;
  if (seconds > 3600) seconds = 3600;
  return std::chrono::steady_clock::now() +
         std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::duration<double>(seconds));
}

}  // namespace

std::optional<std::string> default_route_interface(const std::string& route_table) {
  std::istringstream in(route_table);
  std::string line;
  std::getline(in, line);  // column titles
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    std::string iface, destination, gateway, flags, refcnt, use, metric, mask;
    if (!(fields >> iface >> destination >> gateway >> flags >> refcnt >> use >> metric >> mask)) continue;
    if (destination == "00000000" && mask == "00000000") return iface;
  }
  return std::nullopt;
}

std::vector<std::string> system_name_lookup(const std::optional<std::string>& address) {
  std::vector<std::string> names;
  if (!address) {
    char host[256] = {};
    if (gethostname(host, sizeof host - 1) != 0 || host[0] == '\0') return names;
    names.push_back(host);
    struct addrinfo hints {};
    hints.ai_family = AF_UNSPEC;
    hints.ai_flags = AI_CANONNAME;
    struct addrinfo* result = nullptr;
    if (getaddrinfo(host, nullptr, &hints, &result) == 0) {
      if (result && result->ai_canonname && names.front() != result->ai_canonname)
        names.push_back(result->ai_canonname);
      freeaddrinfo(result);
    }
    return names;
  }
  sockaddr_storage storage;
  socklen_t length = 0;
  if (!parse_address(*address, &storage, &length)) return names;
  if (std::optional<std::string> name = reverse_lookup(reinterpret_cast<const sockaddr*>(&storage), length))
    names.push_back(*name);
  return names;
}

struct LinuxNetwork::Lookups {
  std::mutex mu;
  std::condition_variable answered;
  std::map<std::string, Cached> cache;                                   // guarded by mu
  std::map<std::string, std::chrono::steady_clock::time_point> pending;  // key -> given up at; guarded by mu
};

LinuxNetwork::LinuxNetwork(NetworkOptions options)
    : options_(std::move(options)),
      lookups_(std::make_shared<Lookups>()),
      pool_(std::make_unique<ResolverPool>(options_.resolver_threads, options_.max_queued_lookups)) {}

LinuxNetwork::LinuxNetwork(std::string route_file, std::chrono::milliseconds lookup_deadline)
    : LinuxNetwork([&] {
        NetworkOptions options;
        options.route_file = std::move(route_file);
        options.lookup_deadline = lookup_deadline;
        return options;
      }()) {}

std::map<std::string, std::vector<std::string>> LinuxNetwork::names_for(
    const std::vector<std::string>& keys, std::chrono::steady_clock::time_point deadline) {
  using Clock = std::chrono::steady_clock;
  std::map<std::string, std::vector<std::string>> answers;
  std::vector<std::string> wanted;
  Clock::time_point now = Clock::now();
  // A refresh nobody waits for may start a little later than a lookup a
  // caller waits for, but not so late that its answer is out of date again.
  Clock::time_point start_by = options_.answer_from_cache ? now + options_.lookup_deadline : deadline;
  {
    std::lock_guard<std::mutex> lock(lookups_->mu);
    for (const std::string& key : keys) {
      auto cached = lookups_->cache.find(key);
      if (cached != lookups_->cache.end()) {
        if (cached->second.expires > now) {
          answers[key] = cached->second.names;
          continue;
        }
        if (options_.answer_from_cache) answers[key] = cached->second.names;
      }
      wanted.push_back(key);
      auto pending = lookups_->pending.find(key);
      if (pending != lookups_->pending.end() && pending->second > now) continue;  // already on its way
      lookups_->pending[key] = start_by;
      NameLookup lookup = options_.lookup ? options_.lookup : NameLookup(system_name_lookup);
      std::chrono::seconds lifetime = options_.cache_lifetime;
      auto job = [shared = lookups_, lookup = std::move(lookup), key, lifetime] {
        std::vector<std::string> names = lookup(key.empty() ? std::nullopt : std::optional<std::string>(key));
        std::lock_guard<std::mutex> done(shared->mu);
        shared->cache[key] = Cached{std::move(names), Clock::now() + lifetime};
        shared->pending.erase(key);
        shared->answered.notify_all();
      };
      if (!pool_->submit(std::move(job), start_by)) lookups_->pending.erase(key);
    }
  }
  if (options_.answer_from_cache || wanted.empty()) return answers;

  std::unique_lock<std::mutex> lock(lookups_->mu);
  auto fresh = [&](const std::string& key) {
    auto cached = lookups_->cache.find(key);
    return cached != lookups_->cache.end() && cached->second.expires > Clock::now();
  };
  lookups_->answered.wait_until(lock, deadline, [&] {
    for (const std::string& key : wanted)
      if (!fresh(key)) return false;
    return true;
  });
  for (const std::string& key : wanted)
    if (fresh(key)) answers[key] = lookups_->cache[key].names;
  return answers;
}

plist::Array LinuxNetwork::get_interfaces_info(bool complete) {
  std::set<std::string> unnamable;
  std::map<std::string, std::string> hardware;
  std::vector<Address> addresses = up_addresses(&unnamable, &hardware);
  if (!unnamable.empty()) {
    std::lock_guard<std::mutex> lock(mu_);
    for (const std::string& name : unnamable)
      if (reported_names_.insert(name).second)
        platform::log_error("hubwardend: leaving network interface \"" + platform::escape_for_log(name) +
                            "\" out of the interface list: name is not UTF-8");
  }
  std::optional<std::string> primary;
  if (std::optional<std::string> table = platform::read_file(options_.route_file))
    primary = default_route_interface(*table);

  std::vector<std::string> dns(addresses.size());
  if (complete) {
    std::vector<std::string> keys;
    for (const Address& a : addresses) keys.push_back(a.text);
    auto names = names_for(keys, std::chrono::steady_clock::now() + options_.lookup_deadline);
    for (size_t i = 0; i < addresses.size(); ++i)
      if (auto it = names.find(addresses[i].text); it != names.end() && !it->second.empty())
        dns[i] = it->second.front();
  } else {
    // A quick gathering looks nothing up; it reuses earlier answers.
    std::lock_guard<std::mutex> lock(lookups_->mu);
    for (size_t i = 0; i < addresses.size(); ++i)
      if (auto it = lookups_->cache.find(addresses[i].text); it != lookups_->cache.end() && !it->second.names.empty())
        dns[i] = it->second.names.front();
  }

  plist::Array out;
  out.reserve(addresses.size());
  bool primary_taken = false;
  for (size_t i = 0; i < addresses.size(); ++i) {
    const Address& a = addresses[i];
    bool is_primary = a.ipv4 && !primary_taken && primary && *primary == a.name;
    if (is_primary) primary_taken = true;
    plist::Dict entry;
    entry.set("name", a.name);
    entry.set("family", a.ipv4 ? "AF_INET" : "AF_INET6");
    entry.set("ipAddress", a.text);
    entry.set("isPrimaryIPv4Interface", is_primary);
    entry.set("dnsName", dns[i]);
    entry.set("hardwareAddress", hardware[a.name]);
    out.push_back(std::move(entry));
  }
  return out;
}

std::vector<std::string> LinuxNetwork::host_names_for_address(const std::optional<std::string>& address,
                                                              double timeout_seconds) {
  if (address) {
    sockaddr_storage storage;
    socklen_t length = 0;
    if (!parse_address(*address, &storage, &length)) return {};
  }
  std::string key = address.value_or("");
  auto answers = names_for({key}, deadline_after(timeout_seconds));
  auto it = answers.find(key);
  return it == answers.end() ? std::vector<std::string>{} : it->second;
}

}  // namespace hubwardend
