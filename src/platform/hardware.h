// The hardware registry and kernel variables that the hardware description
// reads. Names follow the sysctl names the description asks for ("hw.model",
// "hw.memsize", "machdep.cpu.brand_string", ...); an implementation answers
// those it can derive on its platform and reports the rest as unreadable.
// Besides those, "hw.model_display_name" is the model's name for people
// ("PowerEdge R630") on platforms that know it without a model table, where
// "hw.model" is then the full technical identification.
//
// No method fails by any other means than an empty answer, and none blocks
// for long (they read kernel tables, not devices). Safe from any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "plist/value.h"

namespace platform {

struct HostBasicInfo {
  int cpu_type = 0;
  int cpu_subtype = 0;
  int physical_cpus = 0;
};

class Hardware {
 public:
  virtual ~Hardware() = default;
  // An integer kernel variable; nullopt when unknown or unreadable.
  virtual std::optional<uint64_t> sysctl_integer(const std::string& name) = 0;
  // A text kernel variable; nullopt when unknown or unreadable.
  virtual std::optional<std::string> sysctl_string(const std::string& name) = 0;
  // Property dictionaries of every registry device matching class_name
  // ("IOPlatformExpertDevice"), in registry order; empty when none match
  // or the registry cannot be read.
  virtual std::vector<plist::Dict> registry_devices(const std::string& class_name) = 0;
  // Searches the registry entry at path ("IODeviceTree:/cpus") and its
  // children for property; nullopt when the entry or the property is absent.
  virtual std::optional<plist::Value> registry_search(const std::string& path, const std::string& property) = 0;
  // The host's processor type, subtype and processor count; nullopt when
  // the platform cannot say.
  virtual std::optional<HostBasicInfo> host_basic_info() = 0;
};

}  // namespace platform
