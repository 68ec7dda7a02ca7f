// In-memory log lines for tests.
#include "platform/fake/fake_log.h"

namespace platform {

void FakeLog::write(Priority priority, std::string_view line) {
  std::lock_guard<std::mutex> lock(mutex_);
  entries_.emplace_back(priority, std::string(line));
}

std::vector<FakeLog::Entry> FakeLog::entries() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return entries_;
}

std::vector<std::string> FakeLog::lines() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> out;
  out.reserve(entries_.size());
  for (const Entry& e : entries_) out.push_back(e.second);
  return out;
}

bool FakeLog::contains(std::string_view substr) const {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const Entry& e : entries_)
    if (e.second.find(substr) != std::string::npos) return true;
  return false;
}

bool FakeLog::contains(Priority priority, std::string_view substr) const {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const Entry& e : entries_)
    if (e.first == priority && e.second.find(substr) != std::string::npos) return true;
  return false;
}

void FakeLog::clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  entries_.clear();
}

}  // namespace platform
