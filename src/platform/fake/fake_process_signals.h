// A signal service for tests: records every send and answers from a table,
// so kill rules can be checked without a process to end. Not thread-safe.
#pragma once

#include <sys/types.h>

#include <map>
#include <utility>
#include <vector>

#include "platform/signals.h"

namespace platform {

class FakeProcessSignals : public ProcessSignals {
 public:
  std::vector<std::pair<pid_t, int>> sent;       // (pid, signal), in order
  std::map<std::pair<pid_t, int>, int> results;  // absent: 0
  std::map<pid_t, int> pid_results;              // for every signal; absent: 0

  // Records the send and returns results[{pid, signal}], else
  // pid_results[pid], else 0. Applies none of the real services' refusals.
  int send(pid_t pid, int signal) override;
};

}  // namespace platform
