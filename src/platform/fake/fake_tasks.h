// A tool runner for tests: each path answers with a scripted result (or a
// handler that computes one), and every call is recorded. A path with no
// script behaves like a missing program: run() gives launched=false,
// spawn_detached() gives nothing, launch_detached() gives a forked process
// whose tool never runs, and has_tool() is false. Safe from any thread.
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/tasks.h"

namespace platform {

class FakeTasks : public Tasks {
 public:
  struct Invocation {
    std::string path;
    std::vector<std::string> args;
    std::string input;
    double timeout_seconds = 0;
    bool detached = false;
  };
  using Handler = std::function<TaskResult(const Invocation&)>;

  TaskResult run(const std::string& path, const std::vector<std::string>& args, const std::string& input = {},
                 double timeout_seconds = 0) override;
  std::optional<int> spawn_detached(const std::string& path, const std::vector<std::string>& args) override;
  DetachedLaunch launch_detached(const std::string& path, const std::vector<std::string>& argv) override;
  bool has_tool(const std::string& path) override;

  // run(path, ...) returns result from now on; launched is set for you.
  void set_result(const std::string& path, TaskResult result);
  // A tool that exits with status and prints out.
  void set_exit(const std::string& path, int status, std::string out = {}, std::string err = {});
  // run(path, ...) returns whatever handler computes. The handler runs
  // without the fake's lock held, so it may call back into the fake.
  void set_handler(const std::string& path, Handler handler);
  // spawn_detached(path, ...) succeeds with pid (or fails with nullopt).
  void set_spawn(const std::string& path, std::optional<int> pid);
  // launch_detached(path, ...) answers with launch from now on; without one
  // it answers pid 4242.
  void set_launch(const std::string& path, DetachedLaunch launch);
  // has_tool(path) answers present; without a setting, whether path has a
  // script of any kind.
  void set_tool_present(const std::string& path, bool present);

  std::vector<Invocation> invocations() const;
  // How often path was run or spawned.
  int count(const std::string& path) const;
  // The last invocation of path, if any.
  std::optional<Invocation> last(const std::string& path) const;
  void clear_invocations();

 private:
  mutable std::mutex mutex_;
  std::map<std::string, Handler> handlers_;
  std::map<std::string, std::optional<int>> spawns_;
  std::map<std::string, DetachedLaunch> launches_;
  std::map<std::string, bool> present_;
  std::vector<Invocation> invocations_;
};

}  // namespace platform
