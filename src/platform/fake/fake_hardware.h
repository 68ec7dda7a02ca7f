// Hardware facts for tests: kernel variables, registry devices by class,
// registry properties by entry path and the host's processor information,
// as plain fields. Anything not set is unreadable. Set them before the code
// under test runs; after that the fake is only read, so it is safe from any
// thread.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/hardware.h"

namespace platform {

class FakeHardware : public Hardware {
 public:
  std::map<std::string, uint64_t> integers;
  std::map<std::string, std::string> strings;
  std::map<std::string, std::vector<plist::Dict>> devices;  // by class name
  // Keyed by (entry path, property name).
  std::map<std::pair<std::string, std::string>, plist::Value> registry;
  std::optional<HostBasicInfo> basic_info;

  std::optional<uint64_t> sysctl_integer(const std::string& name) override;
  std::optional<std::string> sysctl_string(const std::string& name) override;
  std::vector<plist::Dict> registry_devices(const std::string& class_name) override;
  std::optional<plist::Value> registry_search(const std::string& path, const std::string& property) override;
  std::optional<HostBasicInfo> host_basic_info() override;
};

}  // namespace platform
