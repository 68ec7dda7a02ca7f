// Fuzz target for the reader of the older text form; accepted values must
// also survive the XML writer, since that is where they usually end up.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "plist/codec.h"
#include "round_trip_check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  fuzz::check_parsed(plist::parse_text(text));
  return 0;
}
