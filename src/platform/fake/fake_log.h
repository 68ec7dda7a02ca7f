// A system log for tests that keeps every line in memory, with its
// priority, so a test can check what was logged. Safe from any thread.
#pragma once

#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/log.h"

namespace platform {

class FakeLog : public Log {
 public:
  using Entry = std::pair<Priority, std::string>;

  void write(Priority priority, std::string_view line) override;

  std::vector<Entry> entries() const;
  std::vector<std::string> lines() const;
  // Whether any line (of the given priority) contains substr.
  bool contains(std::string_view substr) const;
  bool contains(Priority priority, std::string_view substr) const;
  void clear();

 private:
  mutable std::mutex mutex_;
  std::vector<Entry> entries_;
};

}  // namespace platform
