// A crowd of sleeping child processes for the process-table benchmarks, so
// that a sample has a server-sized table to read. Children die with the
// benchmark (parent-death signal) even if it crashes; otherwise they are
// killed and reaped when the crowd goes out of scope.
#pragma once

#include <signal.h>
#include <stdio.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <vector>

class SleepingProcesses {
 public:
  // Spawns up to count children; fewer when the process limit says no.
  explicit SleepingProcesses(size_t count) {
    struct rlimit limit;
    if (::getrlimit(RLIMIT_NPROC, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY && limit.rlim_cur < count + 200)
      count = limit.rlim_cur > 200 ? limit.rlim_cur - 200 : 0;
    pid_t parent = ::getpid();
    children_.reserve(count);
    for (size_t i = 0; i < count; ++i) {
      pid_t pid = ::fork();
      if (pid < 0) break;
      if (pid == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent) ::_exit(0);
        for (;;) ::pause();
      }
      children_.push_back(pid);
    }
  }
  ~SleepingProcesses() {
    for (pid_t pid : children_) ::kill(pid, SIGKILL);
    for (pid_t pid : children_) ::waitpid(pid, nullptr, 0);
  }
  SleepingProcesses(const SleepingProcesses&) = delete;
  SleepingProcesses& operator=(const SleepingProcesses&) = delete;

  size_t size() const { return children_.size(); }

 private:
  std::vector<pid_t> children_;
};
