// Fuzz target for the XML property-list reader (and, through it, the writer).
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "plist/codec.h"
#include "round_trip_check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  fuzz::check_parsed(plist::parse_xml(text));
  plist::parse_any(text);
  return 0;
}
