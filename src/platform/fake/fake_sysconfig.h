// The system configuration store for tests: names as plain fields, and
// preferences sessions that record every call and can be told to fail at
// one step. Set the fields before the code under test runs; the fake's
// accessors and sessions then take its lock, so it is safe from any thread.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/sysconfig.h"

namespace platform {

class FakeSystemConfiguration : public SystemConfiguration {
 public:
  // A step at which every later session fails.
  enum class Step { kNone, kLock, kSet, kCommit, kApply };

  bool reachable = true;
  bool preferences_available = true;  // false: open_preferences gives nullptr
  Step fail_at = Step::kNone;
  // Committed names land here.
  std::optional<std::string> computer = "Front Desk";
  std::optional<std::string> local_host = "front-desk";
  std::optional<std::string> host = "front-desk.example.com";

  bool open(const std::string& client_name) override;
  std::optional<std::string> computer_name() override;
  std::optional<std::string> local_host_name() override;
  std::unique_ptr<PreferencesSession> open_preferences(const std::string& client_name) override;

  // Every session call so far, in order: "open <client>", "lock", "unlock",
  // "set_computer_name <name>", "set_local_host_name <name>",
  // "set_host_name <name>", "commit", "apply".
  std::vector<std::string> calls() const;

 private:
  class Session;

  mutable std::mutex mutex_;
  std::vector<std::string> calls_;
};

}  // namespace platform
