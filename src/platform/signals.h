// Signals sent to other processes by number, as the administrator's
// "end these processes" request asks. The service is where the rules about
// which processes may be signalled live, so that no caller can get past
// them: process 0 and 1 (and the negative numbers that name whole process
// groups), the host process itself and its parent are never signalled; a
// host running on a sandbox root signals only the processes it started,
// directly or through its children.
//
// Implementations are safe from any thread.
#pragma once

#include <sys/types.h>

namespace platform {

class ProcessSignals {
 public:
  ProcessSignals() = default;
  ProcessSignals(const ProcessSignals&) = delete;
  ProcessSignals& operator=(const ProcessSignals&) = delete;
  virtual ~ProcessSignals() = default;

  // Sends signal to pid; signal 0 sends nothing and only checks. Returns 0,
  // EPERM when the rules above refuse pid (nothing is sent), or the errno
  // value of the failed send (ESRCH for no such process, EPERM for lack of
  // permission, EINVAL for a bad signal number).
  virtual int send(pid_t pid, int signal) = 0;
};

}  // namespace platform
