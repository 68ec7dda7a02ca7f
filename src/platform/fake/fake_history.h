// An in-memory history service for tests: keeps every sample with the time
// a test sets, answers queries like the host's store (without thinning or
// roll-up) and records what it was asked. Not thread-safe.
#pragma once

#include <optional>
#include <vector>

#include "platform/host_services.h"

namespace platform {

class FakeHistoryService : public HistoryService {
 public:
  struct Stored {
    double time;
    plist::Array sample;
  };

  double now = 0;                    // time stamp of update(), "now" of get()
  std::vector<Stored> stored;        // every sample, oldest first
  ErrorName update_error = nullptr;  // returned by update() when set (nothing stored)
  ErrorName get_error = nullptr;     // returned by get() when set
  std::vector<plist::Value> time_scales_asked;
  std::vector<std::optional<plist::Value>> variants_asked;

  ErrorName update(const plist::Array& sample, plist::Dict* context) override;
  // Samples not older than time_scale as {"t", "v1".."v18"}, or only the
  // one key a variant such as "v1" names.
  ErrorName get(const plist::Value* variant, const plist::Value& time_scale, std::optional<plist::Array>* samples,
                plist::Dict* context) override;
};

}  // namespace platform
