// The system's boot time, as the idle driver records it in the context.
#include "platform/clock.h"
#include "platform/registry.h"
#include "request/operations.h"

namespace hubwarden {

std::optional<double> get_boot_time() {
  if (!platform::has<platform::Clock>()) return std::nullopt;
  return platform::get<platform::Clock>().boot_time();
}

}  // namespace hubwarden
