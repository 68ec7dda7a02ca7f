// Reading the serial-number property.
#include "platform/serial_number.h"

#include <algorithm>
#include <cstring>

namespace platform {

std::string decode_serial_number(const plist::Data& property) {
  char buffer[256] = {};
  if (!property.empty()) std::memcpy(buffer, property.data(), std::min<size_t>(property.size(), 255));
  char serial[20] = {};
  if (std::strchr(buffer, '-')) {
    std::memcpy(serial, buffer + 12, 8);
    std::memcpy(serial + 8, buffer, 11);
  } else {
    std::memcpy(serial, buffer + 13, 8);
    std::memcpy(serial + 8, buffer, 3);
  }
  return std::string(serial);
}

}  // namespace platform
