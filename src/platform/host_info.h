// Facts about the running system: kernel, operating-system and server
// version records, host name. Safe from any thread.
#pragma once

#include <optional>
#include <string>

#include "plist/value.h"

namespace platform {

class HostInfo {
 public:
  virtual ~HostInfo() = default;
  // Kernel type ("Linux") and release ("6.1.0-13-amd64"); nullopt on failure.
  virtual std::optional<std::string> kernel_type() = 0;
  virtual std::optional<std::string> kernel_release() = 0;
  // The system version record: "ProductName", "ProductVersion" and, when
  // known, "ProductBuildVersion". nullopt when it cannot be read.
  virtual std::optional<plist::Dict> system_version() = 0;
  // The server version record, same keys; nullopt when not installed.
  virtual std::optional<plist::Dict> server_version() = 0;
  // gethostname(); nullopt on failure.
  virtual std::optional<std::string> host_name() = 0;
};

}  // namespace platform
