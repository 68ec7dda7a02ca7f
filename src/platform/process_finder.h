// Finding a running program by its name, so that it can be told to reread
// its configuration. The answer decides where a signal goes, so only the
// program itself may match: a process that merely shares the name, the
// host itself, init and the kernel's threads never do.
//
// Safe from any thread.
#pragma once

#include <optional>
#include <string>

namespace platform {

class ProcessFinder {
 public:
  ProcessFinder() = default;
  ProcessFinder(const ProcessFinder&) = delete;
  ProcessFinder& operator=(const ProcessFinder&) = delete;
  virtual ~ProcessFinder() = default;

  // The id of the running program called name: its command name is name
  // (as far as the kernel keeps it, 15 bytes) and the file it was started
  // from is called name (a replaced file, "name (deleted)", still counts).
  // Never 0, 1 or this process, and never a zombie. When several run, the
  // lowest id. nullopt when none runs, or name is empty or holds a '/'.
  virtual std::optional<int> pid_by_name(const std::string& name) = 0;
};

}  // namespace platform
