// The system configuration store for tests, as plain fields. Set them
// before the code under test runs; after that the fake is only read, so it
// is safe from any thread.
#pragma once

#include <optional>
#include <string>

#include "platform/sysconfig.h"

namespace platform {

class FakeSystemConfiguration : public SystemConfiguration {
 public:
  bool reachable = true;
  std::optional<std::string> computer = "Front Desk";
  std::optional<std::string> local_host = "front-desk";

  bool open(const std::string& client_name) override;
  std::optional<std::string> computer_name() override;
  std::optional<std::string> local_host_name() override;
  std::unique_ptr<PreferencesSession> open_preferences(const std::string& client_name) override;
};

}  // namespace platform
