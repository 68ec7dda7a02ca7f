// In-memory system-wide preferences.
#include "platform/fake/fake_preferences.h"

#include <utility>

namespace platform {

std::optional<plist::Value> FakePreferences::get(const std::string& key) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (auto it = pending_.find(key); it != pending_.end()) return it->second;
  if (auto it = stored_.find(key); it != stored_.end()) return it->second;
  return std::nullopt;
}

void FakePreferences::set(const std::string& key, std::optional<plist::Value> value) {
  std::lock_guard<std::mutex> lock(mutex_);
  pending_[key] = std::move(value);
}

bool FakePreferences::flush() {
  std::lock_guard<std::mutex> lock(mutex_);
  ++flushes_;
  if (fail_flush_) return false;
  for (auto& [key, value] : pending_) {
    if (value) {
      stored_[key] = std::move(*value);
    } else {
      stored_.erase(key);
    }
  }
  pending_.clear();
  return true;
}

std::optional<plist::Value> FakePreferences::stored(const std::string& key) const {
  std::lock_guard<std::mutex> lock(mutex_);
  if (auto it = stored_.find(key); it != stored_.end()) return it->second;
  return std::nullopt;
}

void FakePreferences::store(const std::string& key, plist::Value value) {
  std::lock_guard<std::mutex> lock(mutex_);
  stored_[key] = std::move(value);
}

void FakePreferences::fail_flush(bool fail) {
  std::lock_guard<std::mutex> lock(mutex_);
  fail_flush_ = fail;
}

int FakePreferences::flushes() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return flushes_;
}

}  // namespace platform
