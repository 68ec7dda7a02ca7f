// Distributed notifications for tests: every posted name, in order. Safe
// from any thread.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "platform/notifications.h"

namespace platform {

class FakeDistributedNotifications : public DistributedNotifications {
 public:
  void post(const std::string& name) override {
    std::lock_guard<std::mutex> lock(mutex_);
    posted_.push_back(name);
  }
  std::vector<std::string> posted() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return posted_;
  }
  void clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    posted_.clear();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> posted_;
};

}  // namespace platform
