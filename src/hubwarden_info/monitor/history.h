// Load history: the eighteen-value sample taken on every idle pass and
// handed to the host's history service, and the "getHistory" reply that
// wraps the stored samples with the legend of what each position means.
// update_history_data and get_history_data are declared with the other
// operations in request/operations.h.
#pragma once

#include "plist/value.h"

namespace hubwarden {

inline constexpr size_t kHistorySampleSize = 18;

// Reads the meters (through their fifteen-second cache in context) and
// returns one sample: unsigned numbers, "" where a value is missing.
plist::Array take_history_sample(plist::Dict* context);

}  // namespace hubwarden
