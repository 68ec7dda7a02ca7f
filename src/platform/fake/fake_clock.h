// A clock for tests: the time stands still until a test moves it, the boot
// time is whatever the test says, and set_time is recorded (and, when it
// succeeds, moves the clock). Safe from any thread.
#pragma once

#include <mutex>
#include <optional>
#include <vector>

#include "platform/clock.h"

namespace platform {

class FakeClock : public Clock {
 public:
  explicit FakeClock(double now = 1700000000.0, std::optional<double> boot = 1699990000.0) : now_(now), boot_(boot) {}

  double now() override;
  std::optional<double> boot_time() override;
  int set_time(double seconds_since_1970) override;

  void set_now(double seconds);
  void advance(double seconds);
  void set_boot_time(std::optional<double> seconds);
  // The errno value set_time returns from now on (0: success).
  void fail_set_time(int error);
  // Every time passed to set_time, successful or not, in order.
  std::vector<double> set_times() const;

 private:
  mutable std::mutex mutex_;
  double now_;
  std::optional<double> boot_;
  int set_time_error_ = 0;
  std::vector<double> set_times_;
};

}  // namespace platform
