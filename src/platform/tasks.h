// Running command-line tools. run() waits for the tool and captures its
// output; spawn_detached() starts a tool that outlives the call. Safe from
// any thread.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace platform {

struct TaskResult {
  bool launched = false;   // false when the tool could not be started
  int exit_status = -1;    // exit code, or 128 + signal number
  bool timed_out = false;  // killed after the time limit
  std::string out;         // standard output
  std::string err;         // standard error
};

class Tasks {
 public:
  virtual ~Tasks() = default;
  // Runs path with args (args[0] is the program name) and the given standard
  // input; kills it after timeout_seconds (<= 0: no limit).
  virtual TaskResult run(const std::string& path, const std::vector<std::string>& args,
                         const std::string& input = {}, double timeout_seconds = 0) = 0;
  // Starts path detached from this process; returns its process id.
  virtual std::optional<int> spawn_detached(const std::string& path,
                                            const std::vector<std::string>& args) = 0;
};

}  // namespace platform
