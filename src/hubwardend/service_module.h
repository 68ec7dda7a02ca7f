// A module the host can hand requests to, other than hubwarden_info itself
// (for example a service module that answers "getState" from the system's
// service manager). Implementations are safe from several threads.
#pragma once

#include <optional>
#include <string>

#include "plist/value.h"

namespace hubwardend {

class ServiceModule {
 public:
  virtual ~ServiceModule() = default;
  virtual const std::string& name() const = 0;
  // The module's reply to request on behalf of user, or nullopt for none.
  virtual std::optional<plist::Dict> handle(const plist::Dict& request, const std::string& user) = 0;
};

}  // namespace hubwardend
