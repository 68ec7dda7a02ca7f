// How the platform device's "serial-number" property is read: the bytes as
// a C string (at most 255 characters) decide the layout by whether they hold
// a '-'; with one, the serial is bytes 12..19 then 0..10, without, bytes
// 13..20 then 0..2; a NUL ends it. Shared by the module, which reads the
// property, and the Linux hardware layer, which lays the property out so
// that this reading gives the machine's serial back. Pure; thread-safe.
#pragma once

#include <string>

#include "plist/value.h"

namespace platform {

// The serial the property's bytes read as; empty when it starts with NUL.
std::string decode_serial_number(const plist::Data& property);

}  // namespace platform
