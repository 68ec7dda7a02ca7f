// Running command-line tools. run() waits for the tool and captures its
// output; spawn_detached() and launch_detached() start a tool that outlives
// the call. Tools are named by the paths the module knows them by; the host
// may run something else in their place (its tools table). Safe from any
// thread.
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

// How a launch_detached() went. pid is the forked intermediate process,
// already exited and reaped when the call returns (the tool itself runs on
// under another id), or -1 when the fork failed, with its errno in
// fork_errno. daemon_errno is set when the intermediate process could not
// detach; pid is valid then, and no tool runs.
struct DetachedLaunch {
  int pid = -1;
  int fork_errno = 0;
  int daemon_errno = 0;
};

class Tasks {
 public:
  virtual ~Tasks() = default;
  // Runs path with args (args[0] is the program name) and the given standard
  // input; kills it after timeout_seconds (<= 0: no limit).
  virtual TaskResult run(const std::string& path, const std::vector<std::string>& args, const std::string& input = {},
                         double timeout_seconds = 0) = 0;
  // Starts path detached from this process; returns its process id.
  virtual std::optional<int> spawn_detached(const std::string& path, const std::vector<std::string>& args) = 0;
  // Starts path the way a long job is handed to the system: fork, detach
  // the child with daemon(3) (working directory kept, standard streams to
  // the null device), close every descriptor below the open-files limit,
  // exec with argv and an empty environment (exit status 1 when the exec
  // fails). Waits only for the short-lived forked process. An exec failure
  // is not reported: the job simply never writes anything.
  virtual DetachedLaunch launch_detached(const std::string& path, const std::vector<std::string>& argv) = 0;
  // Whether the tool at path exists (what the host runs in its place, when
  // it maps it).
  virtual bool has_tool(const std::string& path) = 0;
};

}  // namespace platform
