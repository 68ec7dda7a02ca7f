// Readers and writer for the two property-list text forms: XML, and the
// older text form ( {key = value;} dictionaries, ( a, b ) arrays, quoted
// strings, <hex> data ) which clients still send inside "withDetails+"
// status variants.
//
// Readers never throw and never return a half-built value: either the whole
// document parsed, or `error` says why not. XML input may carry a DOCTYPE,
// which is ignored; external entities are never expanded. All functions are
// safe to call from several threads.
#pragma once

#include <string>
#include <string_view>

#include "plist/value.h"

namespace plist {

struct Parsed {
  Value value;
  std::string error;  // empty on success
  bool ok() const { return error.empty(); }
};

// Parses an XML property list (root element <plist> holding one value).
Parsed parse_xml(std::string_view text);

// Parses the older text form.
Parsed parse_text(std::string_view text);

// XML when the first non-blank character is '<' and the text looks like an
// XML document or a <plist> element, else the older text form.
Parsed parse_any(std::string_view text);

// Writes an XML declaration and a <plist version="1.0"> root, no DOCTYPE.
// Integers are written as stored (signed or unsigned), reals with enough
// digits to round-trip, dates in ISO 8601 UTC, data in base64. A null value
// has no XML form and is written as an empty string. Strings are escaped,
// and characters XML 1.0 cannot carry (control characters other than tab,
// LF and CR; invalid UTF-8) become U+FFFD, so the output always reads back.
std::string write_xml(const Value& value);

}  // namespace plist
