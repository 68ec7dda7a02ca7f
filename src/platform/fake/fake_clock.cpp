// A settable clock for tests.
#include "platform/fake/fake_clock.h"

namespace platform {

double FakeClock::now() {
  std::lock_guard<std::mutex> lock(mutex_);
  return now_;
}

std::optional<double> FakeClock::boot_time() {
  std::lock_guard<std::mutex> lock(mutex_);
  return boot_;
}

int FakeClock::set_time(double seconds_since_1970) {
  std::lock_guard<std::mutex> lock(mutex_);
  set_times_.push_back(seconds_since_1970);
  if (set_time_error_ == 0) now_ = seconds_since_1970;
  return set_time_error_;
}

void FakeClock::set_now(double seconds) {
  std::lock_guard<std::mutex> lock(mutex_);
  now_ = seconds;
}

void FakeClock::advance(double seconds) {
  std::lock_guard<std::mutex> lock(mutex_);
  now_ += seconds;
}

void FakeClock::set_boot_time(std::optional<double> seconds) {
  std::lock_guard<std::mutex> lock(mutex_);
  boot_ = seconds;
}

void FakeClock::fail_set_time(int error) {
  std::lock_guard<std::mutex> lock(mutex_);
  set_time_error_ = error;
}

std::vector<double> FakeClock::set_times() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return set_times_;
}

}  // namespace platform
