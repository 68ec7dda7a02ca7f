#include "platform/byte_amount.h"

#include <cmath>
#include <cstdio>

namespace platform {

std::string byteAmountString(double bytes) {
  if (!(bytes >= 0) || std::isinf(bytes)) bytes = 0;  // also NaN
  if (bytes < 999.5) {
    long long whole = std::llround(bytes);
    return std::to_string(whole) + (whole == 1 ? " byte" : " bytes");
  }
  static constexpr const char* kUnits[] = {"KB", "MB", "GB", "TB", "PB", "EB", "ZB", "YB"};
  constexpr size_t kLast = sizeof kUnits / sizeof kUnits[0] - 1;
  size_t unit = 0;
  double value = bytes / 1000;
  // Step up while the value would round to 1000 of this unit: 999,960 bytes
  // is "1 MB", not "1000 KB".
  while (unit < kLast && value >= 999.95) {
    value /= 1000;
    ++unit;
  }
  char text[64];
  double tenths = std::round(value * 10);
  if (std::fmod(tenths, 10) == 0)
    std::snprintf(text, sizeof text, "%.0f %s", tenths / 10, kUnits[unit]);
  else
    std::snprintf(text, sizeof text, "%.1f %s", tenths / 10, kUnits[unit]);
  return text;
}

}  // namespace platform
