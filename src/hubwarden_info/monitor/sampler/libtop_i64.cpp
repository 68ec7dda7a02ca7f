// 64-bit accumulators over 32-bit counter readings.
#include "monitor/sampler/libtop_i64.h"

#include <limits>

namespace hubwarden {

libtop_i64_t libtop_i64_init(uint64_t initial) {
  libtop_i64_t counter;
  constexpr uint64_t kMax = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
  counter.accumulated = static_cast<int64_t>(initial > kMax ? kMax : initial);
  counter.last_raw = static_cast<uint32_t>(initial);
  return counter;
}

void libtop_i64_update(libtop_i64_t* counter, uint64_t raw) {
  uint32_t raw32 = static_cast<uint32_t>(raw);
  // Unsigned subtraction wraps; read as signed it is the step taken, even
  // across a wrap of the raw counter.
  int32_t step = static_cast<int32_t>(raw32 - counter->last_raw);
  int64_t sum;
  if (__builtin_add_overflow(counter->accumulated, static_cast<int64_t>(step), &sum))
    sum = step > 0 ? std::numeric_limits<int64_t>::max() : std::numeric_limits<int64_t>::min();
  counter->accumulated = sum;
  counter->last_raw = raw32;
}

int64_t libtop_i64_value(const libtop_i64_t* counter) { return counter->accumulated; }

}  // namespace hubwarden
