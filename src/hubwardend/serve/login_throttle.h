// Slows down password guessing over the network entrance. Failed logins are
// counted per peer address; once an address has failed kFreeFailures times
// within the window, each further attempt from it waits before its password
// is checked, twice as long as the one before (1 s, 2 s, 4 s ... up to
// 30 s). Attempts that arrive together queue behind each other, so opening
// many connections at once gains a guesser nothing; when the queue of one
// address reaches the longest wait, further attempts are refused unchecked.
// A success clears the address. The first time an address is throttled in a
// window, one line goes to the log.
//
// IPv6 peers are counted per /64 network, since one host commonly holds a
// whole /64; an IPv4-mapped IPv6 address counts as its IPv4 address.
//
// The throttle never sleeps: admit() says how long to wait and the caller
// schedules the check (an I/O thread must not block). The local socket does
// not use it: its peers are known by their credentials and must never be
// locked out by network guessers.
//
// Memory is bounded: at most max_addresses addresses are remembered; the one
// that failed longest ago is forgotten first.
//
// Thread-safety: every method may be called from any thread.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace hubwardend::serve {

class LoginThrottle {
 public:
  using Clock = std::chrono::steady_clock;
  using Milliseconds = std::chrono::milliseconds;

  struct Options {
    int free_failures = 3;
    // Failures further apart than this start the count again.
    Clock::duration window = std::chrono::minutes(10);
    Milliseconds first_delay{1000};
    Milliseconds max_delay{30000};
    // The longest an attempt may be asked to wait, queue included; beyond
    // it attempts are refused.
    Milliseconds max_wait{60000};
    size_t max_addresses = 10000;
    // Defaults: Clock::now, and a notice in the system log.
    std::function<Clock::time_point()> now;
    std::function<void(std::string_view)> log;
  };

  LoginThrottle();
  explicit LoginThrottle(Options options);
  LoginThrottle(const LoginThrottle&) = delete;
  LoginThrottle& operator=(const LoginThrottle&) = delete;

  // Called before checking a password from address. Returns how long to
  // wait before checking it (zero for an address that is not throttled), or
  // nullopt when the attempt is to be refused without a check (too many
  // attempts from the address already wait). A returned wait is reserved
  // for this attempt: later attempts queue behind it.
  std::optional<Milliseconds> admit(std::string_view address);

  // Records the result of a check admitted for address.
  void record_failure(std::string_view address);
  void record_success(std::string_view address);

  // Addresses currently remembered (for tests and metrics).
  size_t tracked_addresses() const;

 private:
  struct Entry {
    int failures = 0;
    Clock::time_point last_failure;
    Clock::time_point next_slot;  // when the last reserved attempt is checked
    std::list<std::string>::iterator age;
  };

  // Drops the entry of key when it has expired; returns the live entry or
  // nullptr. REQUIRES: mu_ held.
  Entry* live_entry(const std::string& key, Clock::time_point now);
  void forget(std::unordered_map<std::string, Entry>::iterator it);
  Milliseconds delay_after(int failures) const;

  const Options options_;
  mutable std::mutex mu_;
  std::unordered_map<std::string, Entry> entries_;
  std::list<std::string> by_age_;  // oldest failure first
};

// The key an address is counted under: an IPv4 address as it is, an IPv6
// address as its /64 network ("2001:db8:1:2::/64"), an IPv4-mapped one as
// the IPv4 address; text that is no address is its own key.
std::string throttle_key(std::string_view address);

}  // namespace hubwardend::serve
