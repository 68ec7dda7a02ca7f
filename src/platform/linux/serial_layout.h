// The byte layout of the platform device's "serial-number" property. Its
// readers take the bytes as a C string, look for a '-', and then splice
// either bytes 12..19 and 0..10 (with '-') or bytes 13..20 and 0..2
// (without) into the serial. This encoder lays a serial out so that the
// reading gives it back. Pure; safe from any thread.
#pragma once

#include <string_view>

#include "plist/value.h"

namespace platform {

// Every serial of up to 11 characters, and every one of up to 19 that has a
// '-' after its eighth character or is exactly 19 long, comes back as it is.
// A longer serial keeps its first 19 characters; one that no layout can end
// early (12 to 18 characters, no '-' after the eighth) comes back padded
// with blanks to 19. A NUL ends the serial.
plist::Data encode_serial_number(std::string_view serial);

}  // namespace platform
