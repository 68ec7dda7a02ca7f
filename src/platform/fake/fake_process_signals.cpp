// Recorded signals with scripted answers.
#include "platform/fake/fake_process_signals.h"

namespace platform {

int FakeProcessSignals::send(pid_t pid, int signal) {
  sent.emplace_back(pid, signal);
  if (auto it = results.find({pid, signal}); it != results.end()) return it->second;
  if (auto it = pid_results.find(pid); it != pid_results.end()) return it->second;
  return 0;
}

}  // namespace platform
