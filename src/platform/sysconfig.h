// The system configuration store: computer name and local (multicast DNS)
// host name. Safe from any thread.
#pragma once

#include <memory>
#include <optional>
#include <string>

namespace platform {

class SystemConfiguration {
 public:
  virtual ~SystemConfiguration() = default;
  // Whether the store can be reached at all (client_name names the caller).
  virtual bool open(const std::string& client_name) = 0;
  virtual std::optional<std::string> computer_name() = 0;
  virtual std::optional<std::string> local_host_name() = 0;
};

}  // namespace platform
