// Per-address slowing of failed logins.
#include "hubwardend/serve/login_throttle.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <string.h>

#include <algorithm>
#include <utility>

#include "platform/log.h"
#include "platform/utf8.h"

namespace hubwardend::serve {

namespace {

// Beyond this the delay is at its cap anyway; stops the count growing.
constexpr int kMaxCountedFailures = 64;

}  // namespace

std::string throttle_key(std::string_view address) {
  std::string text(address);
  if (text.size() >= 2 && text.front() == '[' && text.back() == ']') text = text.substr(1, text.size() - 2);
  if (size_t zone = text.find('%'); zone != std::string::npos) text.resize(zone);
  in6_addr v6{};
  if (inet_pton(AF_INET6, text.c_str(), &v6) != 1) return std::string(address);
  char buffer[INET6_ADDRSTRLEN] = {};
  if (IN6_IS_ADDR_V4MAPPED(&v6)) {
    in_addr v4{};
    memcpy(&v4, &v6.s6_addr[12], sizeof v4);
    return inet_ntop(AF_INET, &v4, buffer, sizeof buffer) ? buffer : std::string(address);
  }
  memset(&v6.s6_addr[8], 0, 8);
  return inet_ntop(AF_INET6, &v6, buffer, sizeof buffer) ? std::string(buffer) + "/64" : std::string(address);
}

LoginThrottle::LoginThrottle() : LoginThrottle(Options{}) {}

LoginThrottle::LoginThrottle(Options options)
    : options_([&] {
        if (!options.now) options.now = [] { return Clock::now(); };
        if (!options.log) options.log = [](std::string_view line) { platform::log_notice(line); };
        options.max_addresses = std::max<size_t>(options.max_addresses, 1);
        return std::move(options);
      }()) {}

LoginThrottle::Milliseconds LoginThrottle::delay_after(int failures) const {
  int doublings = std::min(failures - options_.free_failures, 30);
  if (doublings < 0) return Milliseconds(0);
  Milliseconds delay = options_.first_delay * (int64_t{1} << doublings);
  return std::min(delay, options_.max_delay);
}

void LoginThrottle::forget(std::unordered_map<std::string, Entry>::iterator it) {
  by_age_.erase(it->second.age);
  entries_.erase(it);
}

LoginThrottle::Entry* LoginThrottle::live_entry(const std::string& key, Clock::time_point now) {
  auto it = entries_.find(key);
  if (it == entries_.end()) return nullptr;
  // An entry lives while failures keep coming, and while attempts it made
  // wait are still queued.
  if (now - it->second.last_failure > options_.window && now >= it->second.next_slot) {
    forget(it);
    return nullptr;
  }
  return &it->second;
}

std::optional<LoginThrottle::Milliseconds> LoginThrottle::admit(std::string_view address) {
  std::string key = throttle_key(address);
  std::lock_guard<std::mutex> lock(mu_);
  Clock::time_point now = options_.now();
  Entry* entry = live_entry(key, now);
  if (entry == nullptr || entry->failures < options_.free_failures) return Milliseconds(0);
  Clock::time_point ready = std::max(now, entry->next_slot) + delay_after(entry->failures);
  auto wait = std::chrono::ceil<Milliseconds>(ready - now);
  if (wait > options_.max_wait) return std::nullopt;
  entry->next_slot = ready;
  return wait;
}

void LoginThrottle::record_failure(std::string_view address) {
  std::string key = throttle_key(address);
  std::unique_lock<std::mutex> lock(mu_);
  Clock::time_point now = options_.now();
  Entry* entry = live_entry(key, now);
  if (entry == nullptr) {
    while (entries_.size() >= options_.max_addresses) forget(entries_.find(by_age_.front()));
    by_age_.push_back(key);
    entry = &entries_[key];
    entry->age = std::prev(by_age_.end());
    entry->next_slot = now;
  } else {
    by_age_.splice(by_age_.end(), by_age_, entry->age);
  }
  entry->failures = std::min(entry->failures + 1, kMaxCountedFailures);
  entry->last_failure = now;
  // Logged once per window: the count starts again only when the entry
  // expired, and only then can it reach the threshold again.
  if (entry->failures == options_.free_failures) {
    lock.unlock();
    options_.log("hubwardend: repeated authentication failures from " + platform::escape_for_log(key));
  }
}

void LoginThrottle::record_success(std::string_view address) {
  std::string key = throttle_key(address);
  std::lock_guard<std::mutex> lock(mu_);
  if (auto it = entries_.find(key); it != entries_.end()) forget(it);
}

size_t LoginThrottle::tracked_addresses() const {
  std::lock_guard<std::mutex> lock(mu_);
  return entries_.size();
}

}  // namespace hubwardend::serve
