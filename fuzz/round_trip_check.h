// The property that both fuzz targets check once a reader accepts an input:
// whatever was read can be written, the written document reads back, and a
// second write of that reading is identical to the first (writing is stable
// once strings have been made safe for XML).
#pragma once

#include <cstdlib>
#include <string>

#include "plist/codec.h"

namespace fuzz {

inline void check_round_trip(const plist::Value& value) {
  std::string first = plist::write_xml(value);
  plist::Parsed once = plist::parse_xml(first);
  if (!once.ok()) std::abort();
  std::string second = plist::write_xml(once.value);
  plist::Parsed twice = plist::parse_xml(second);
  if (!twice.ok()) std::abort();
  if (plist::write_xml(twice.value) != second) std::abort();
}

// A refused input must leave no value behind.
inline void check_parsed(const plist::Parsed& parsed) {
  if (!parsed.ok()) {
    if (!parsed.value.is_null()) std::abort();
    return;
  }
  check_round_trip(parsed.value);
}

}  // namespace fuzz
