// Fuzz target for the JSON reader and writer. An accepted document must be
// written again in both layouts, read back to an equal value, and reach a
// fixed point after one write; a refused one must leave no value behind.
// Accepted values must also survive the XML writer, where requests go next.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "plist/codec.h"
#include "plist/json.h"
#include "round_trip_check.h"

namespace {

void check_json_round_trip(const plist::Value& value, bool pretty) {
  std::string first = plist::write_json(value, pretty);
  plist::Parsed once = plist::parse_json(first);
  if (!once.ok() || !(once.value == value)) std::abort();
  if (plist::write_json(once.value, pretty) != first) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  plist::Parsed parsed = plist::parse_json(text);
  if (!parsed.ok()) {
    if (!parsed.value.is_null()) std::abort();
    return 0;
  }
  check_json_round_trip(parsed.value, false);
  check_json_round_trip(parsed.value, true);
  fuzz::check_round_trip(parsed.value);
  return 0;
}
