// A process finder for tests: answers from a name -> pid table and records
// the names asked for. Not thread-safe.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/process_finder.h"

namespace platform {

class FakeProcessFinder : public ProcessFinder {
 public:
  std::map<std::string, int> pids;
  std::vector<std::string> asked;

  // pids[name] when present, else nullopt. Applies none of the real
  // finder's refusals: a test may list pid 1 to see that nothing trusts it.
  std::optional<int> pid_by_name(const std::string& name) override;
};

}  // namespace platform
