// Interface snapshot from getifaddrs; reverse lookups with deadlines.
#include "hubwardend/network.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>
#include <cstring>
#include <functional>
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

// The addresses of the interfaces that are up, loopback aside. Interfaces
// whose names are not UTF-8 cannot be named in a snapshot; they are left
// out and their names added to *unnamable.
std::vector<Address> up_addresses(std::set<std::string>* unnamable) {
  std::vector<Address> out;
  struct ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return out;
  for (struct ifaddrs* it = list; it; it = it->ifa_next) {
    if (!it->ifa_addr || !it->ifa_name) continue;
    if (!(it->ifa_flags & IFF_UP) || (it->ifa_flags & IFF_LOOPBACK)) continue;
    int family = it->ifa_addr->sa_family;
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

// Runs the jobs on threads of their own and collects the answers that come
// in before the deadline. Late threads finish against the shared state,
// which they keep alive, and their answers are dropped.
std::vector<std::optional<std::vector<std::string>>> run_with_deadline(
    std::vector<std::function<std::vector<std::string>()>> jobs, std::chrono::steady_clock::time_point deadline) {
  struct Shared {
    std::mutex mu;
    std::condition_variable done;
    std::vector<std::optional<std::vector<std::string>>> answers;
    size_t remaining = 0;
  };
  auto shared = std::make_shared<Shared>();
  shared->answers.resize(jobs.size());
  shared->remaining = jobs.size();
  for (size_t i = 0; i < jobs.size(); ++i) {
    try {
      std::thread([shared, i, job = std::move(jobs[i])] {
        std::vector<std::string> answer = job();
        std::lock_guard<std::mutex> lock(shared->mu);
        shared->answers[i] = std::move(answer);
        if (--shared->remaining == 0) shared->done.notify_all();
      }).detach();
    } catch (const std::system_error&) {
      // No thread to be had: this answer is simply unknown.
      std::lock_guard<std::mutex> lock(shared->mu);
      --shared->remaining;
    }
  }
  std::unique_lock<std::mutex> lock(shared->mu);
  shared->done.wait_until(lock, deadline, [&] { return shared->remaining == 0; });
  return shared->answers;
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

LinuxNetwork::LinuxNetwork(std::string route_file, std::chrono::milliseconds lookup_deadline)
    : route_file_(std::move(route_file)), lookup_deadline_(lookup_deadline) {}

plist::Array LinuxNetwork::get_interfaces_info(bool complete) {
  std::set<std::string> unnamable;
  std::vector<Address> addresses = up_addresses(&unnamable);
  if (!unnamable.empty()) {
    std::lock_guard<std::mutex> lock(mu_);
    for (const std::string& name : unnamable)
      if (reported_names_.insert(name).second)
        platform::log_error("hubwardend: leaving network interface \"" + platform::escape_for_log(name) +
                            "\" out of the interface list: name is not UTF-8");
  }
  std::optional<std::string> primary;
  if (std::optional<std::string> table = platform::read_file(route_file_)) primary = default_route_interface(*table);

  std::vector<std::string> dns(addresses.size());
  if (complete) {
    std::vector<std::function<std::vector<std::string>()>> jobs;
    for (const Address& a : addresses)
      jobs.push_back([a] {
        std::optional<std::string> name = reverse_lookup(reinterpret_cast<const sockaddr*>(&a.storage), a.length);
        return name ? std::vector<std::string>{*name} : std::vector<std::string>{};
      });
    auto answers = run_with_deadline(std::move(jobs), std::chrono::steady_clock::now() + lookup_deadline_);
    std::lock_guard<std::mutex> lock(mu_);
    for (size_t i = 0; i < addresses.size(); ++i) {
      if (!answers[i]) continue;  // timed out: neither known nor known to be absent
      dns[i] = answers[i]->empty() ? "" : answers[i]->front();
      dns_names_[addresses[i].text] = dns[i];
    }
  } else {
    std::lock_guard<std::mutex> lock(mu_);
    for (size_t i = 0; i < addresses.size(); ++i)
      if (auto it = dns_names_.find(addresses[i].text); it != dns_names_.end()) dns[i] = it->second;
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
    out.push_back(std::move(entry));
  }
  return out;
}

std::vector<std::string> LinuxNetwork::host_names_for_address(const std::optional<std::string>& address,
                                                              double timeout_seconds) {
  std::function<std::vector<std::string>()> job;
  if (!address) {
    job = [] {
      std::vector<std::string> names;
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
    };
  } else {
    sockaddr_storage storage;
    socklen_t length = 0;
    if (!parse_address(*address, &storage, &length)) return {};
    job = [storage, length] {
      std::optional<std::string> name = reverse_lookup(reinterpret_cast<const sockaddr*>(&storage), length);
      return name ? std::vector<std::string>{*name} : std::vector<std::string>{};
    };
  }
  std::vector<std::function<std::vector<std::string>()>> jobs{std::move(job)};
  auto answers = run_with_deadline(std::move(jobs), deadline_after(timeout_seconds));
  return answers.front().value_or(std::vector<std::string>{});
}

}  // namespace hubwardend
