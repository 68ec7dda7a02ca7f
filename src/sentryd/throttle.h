// Keeps a rule from mailing about the same thing over and over: a disk that
// stays full is reported on every idle pass of the daemon, but should reach
// the administrator once per period.
//
// Memory is bounded: at most max_keys distinct (rule, key) pairs are held.
// When that many are within their period, further new keys are refused
// rather than let through, so a flood of distinct values cannot become a
// flood of mail. Thread-compatible: one owner (the intake loop).
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <unordered_map>

namespace sentryd {

class Throttle {
 public:
  using Clock = std::chrono::steady_clock;

  explicit Throttle(size_t max_keys = 4096) : max_keys_(max_keys) {}

  // True when (rule_id, key) has not been admitted within the last period,
  // and then records now as its time; false when it has, or when the table
  // is full. A period of zero or less always admits and records nothing.
  bool admit(const std::string& rule_id, const std::string& key, std::chrono::seconds period, Clock::time_point now);

  size_t size() const { return last_.size(); }

 private:
  struct Entry {
    Clock::time_point at;
    std::chrono::seconds period;
  };
  void drop_expired(Clock::time_point now);

  size_t max_keys_;
  std::unordered_map<std::string, Entry> last_;
};

}  // namespace sentryd
