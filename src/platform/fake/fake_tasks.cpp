// Scripted tool results for tests.
#include "platform/fake/fake_tasks.h"

namespace platform {

TaskResult FakeTasks::run(const std::string& path, const std::vector<std::string>& args, const std::string& input,
                          double timeout_seconds) {
  Invocation call{path, args, input, timeout_seconds, false};
  Handler handler;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    invocations_.push_back(call);
    auto it = handlers_.find(path);
    if (it != handlers_.end()) handler = it->second;
  }
  if (!handler) return TaskResult{};
  return handler(call);
}

std::optional<int> FakeTasks::spawn_detached(const std::string& path, const std::vector<std::string>& args) {
  std::lock_guard<std::mutex> lock(mutex_);
  invocations_.push_back(Invocation{path, args, {}, 0, true});
  auto it = spawns_.find(path);
  return it == spawns_.end() ? std::nullopt : it->second;
}

DetachedLaunch FakeTasks::launch_detached(const std::string& path, const std::vector<std::string>& argv) {
  std::lock_guard<std::mutex> lock(mutex_);
  invocations_.push_back(Invocation{path, argv, {}, 0, true});
  auto it = launches_.find(path);
  if (it != launches_.end()) return it->second;
  return DetachedLaunch{4242, 0, 0};
}

bool FakeTasks::has_tool(const std::string& path) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = present_.find(path);
  if (it != present_.end()) return it->second;
  return handlers_.count(path) > 0 || spawns_.count(path) > 0 || launches_.count(path) > 0;
}

void FakeTasks::set_launch(const std::string& path, DetachedLaunch launch) {
  std::lock_guard<std::mutex> lock(mutex_);
  launches_[path] = launch;
}

void FakeTasks::set_tool_present(const std::string& path, bool present) {
  std::lock_guard<std::mutex> lock(mutex_);
  present_[path] = present;
}

void FakeTasks::set_result(const std::string& path, TaskResult result) {
  result.launched = true;
  set_handler(path, [result](const Invocation&) { return result; });
}

void FakeTasks::set_exit(const std::string& path, int status, std::string out, std::string err) {
  TaskResult result;
  result.exit_status = status;
  result.out = std::move(out);
  result.err = std::move(err);
  set_result(path, std::move(result));
}

void FakeTasks::set_handler(const std::string& path, Handler handler) {
  std::lock_guard<std::mutex> lock(mutex_);
  handlers_[path] = std::move(handler);
}

void FakeTasks::set_spawn(const std::string& path, std::optional<int> pid) {
  std::lock_guard<std::mutex> lock(mutex_);
  spawns_[path] = pid;
}

std::vector<FakeTasks::Invocation> FakeTasks::invocations() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return invocations_;
}

int FakeTasks::count(const std::string& path) const {
  std::lock_guard<std::mutex> lock(mutex_);
  int n = 0;
  for (const Invocation& call : invocations_) n += call.path == path;
  return n;
}

std::optional<FakeTasks::Invocation> FakeTasks::last(const std::string& path) const {
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto it = invocations_.rbegin(); it != invocations_.rend(); ++it)
    if (it->path == path) return *it;
  return std::nullopt;
}

void FakeTasks::clear_invocations() {
  std::lock_guard<std::mutex> lock(mutex_);
  invocations_.clear();
}

}  // namespace platform
