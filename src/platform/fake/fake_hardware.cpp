// Hardware facts from fields set by a test.
#include "platform/fake/fake_hardware.h"

namespace platform {

std::optional<uint64_t> FakeHardware::sysctl_integer(const std::string& name) {
  auto it = integers.find(name);
  if (it == integers.end()) return std::nullopt;
  return it->second;
}

std::optional<std::string> FakeHardware::sysctl_string(const std::string& name) {
  auto it = strings.find(name);
  if (it == strings.end()) return std::nullopt;
  return it->second;
}

std::vector<plist::Dict> FakeHardware::registry_devices(const std::string& class_name) {
  auto it = devices.find(class_name);
  if (it == devices.end()) return {};
  return it->second;
}

std::optional<plist::Value> FakeHardware::registry_search(const std::string& path, const std::string& property) {
  auto it = registry.find({path, property});
  if (it == registry.end()) return std::nullopt;
  return it->second;
}

std::optional<HostBasicInfo> FakeHardware::host_basic_info() { return basic_info; }

}  // namespace platform
