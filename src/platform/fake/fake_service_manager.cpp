// In-memory service manager for tests.
#include "platform/fake/fake_service_manager.h"

#include <errno.h>

namespace platform {

void FakeServiceManager::set_job(const std::string& job, bool enabled) {
  std::lock_guard<std::mutex> lock(mu_);
  jobs_[job] = enabled;
}

void FakeServiceManager::fail_job(const std::string& job, int status) {
  std::lock_guard<std::mutex> lock(mu_);
  if (status == 0) failures_.erase(job);
  else failures_[job] = status;
}

void FakeServiceManager::set_unit(const std::string& unit, const std::string& state) {
  std::lock_guard<std::mutex> lock(mu_);
  units_[unit] = state;
}

bool FakeServiceManager::job_enabled(const std::string& job) {
  std::lock_guard<std::mutex> lock(mu_);
  queries_.push_back(job);
  auto it = jobs_.find(job);
  return it != jobs_.end() && it->second;
}

int FakeServiceManager::set_job_enabled(const std::string& job, bool enabled) {
  std::lock_guard<std::mutex> lock(mu_);
  set_calls_.push_back({job, enabled});
  if (auto failure = failures_.find(job); failure != failures_.end()) return failure->second;
  auto it = jobs_.find(job);
  if (it == jobs_.end()) return ENOENT;
  it->second = enabled;
  return 0;
}

bool FakeServiceManager::unit_installed(const std::string& unit) {
  std::lock_guard<std::mutex> lock(mu_);
  return units_.count(unit) > 0;
}

std::string FakeServiceManager::active_state(const std::string& unit) {
  std::lock_guard<std::mutex> lock(mu_);
  auto it = units_.find(unit);
  return it == units_.end() ? "inactive" : it->second;
}

std::vector<std::string> FakeServiceManager::queries() const {
  std::lock_guard<std::mutex> lock(mu_);
  return queries_;
}

std::vector<FakeServiceManager::SetCall> FakeServiceManager::set_calls() const {
  std::lock_guard<std::mutex> lock(mu_);
  return set_calls_;
}

}  // namespace platform
