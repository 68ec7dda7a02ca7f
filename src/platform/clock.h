// Wall clock and boot time. Safe from any thread.
#pragma once

#include <optional>

namespace platform {

class Clock {
 public:
  virtual ~Clock() = default;
  // Seconds since 1970-01-01 00:00 UTC, with sub-second precision.
  virtual double now() = 0;
  // The system's boot time in seconds since 1970, or nullopt when unknown.
  virtual std::optional<double> boot_time() = 0;
  // Sets the clock; returns 0 or an errno value (EINVAL for a time before
  // 1970, not finite or too large to be a time_t). Under a sandbox root
  // this is the sandbox's clock, never the machine's.
  virtual int set_time(double seconds_since_1970) = 0;
};

}  // namespace platform
