// Waits the module takes on purpose, such as the second between the two
// process samples of a process listing. Behind an interface so that tests
// can stand in a wait that takes no time (and move their clock instead).
// When none is installed, callers sleep on the system's monotonic clock.
// Implementations are safe from any thread.
#pragma once

namespace platform {

class Sleeper {
 public:
  Sleeper() = default;
  Sleeper(const Sleeper&) = delete;
  Sleeper& operator=(const Sleeper&) = delete;
  virtual ~Sleeper() = default;

  // Blocks the calling thread for about seconds (at least that long unless
  // the implementation is a test's). Cannot fail.
  virtual void sleep_for(double seconds) = 0;
};

}  // namespace platform
