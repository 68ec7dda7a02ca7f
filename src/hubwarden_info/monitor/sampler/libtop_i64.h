// 64-bit accumulators for counters that the kernel may hand over as 32-bit
// values and that must survive a wrap between two samples. Each update adds
// the signed 32-bit difference from the previous raw reading, so a counter
// that wrapped once since the last sample still moves forward.
#pragma once

#include <cstdint>

namespace hubwarden {

struct libtop_i64_t {
  int64_t accumulated = 0;
  uint32_t last_raw = 0;
};

// An accumulator starting at initial (which may already exceed 32 bits).
libtop_i64_t libtop_i64_init(uint64_t initial);

// Folds in a new raw reading; only its low 32 bits count.
void libtop_i64_update(libtop_i64_t* counter, uint64_t raw);

int64_t libtop_i64_value(const libtop_i64_t* counter);

}  // namespace hubwarden
