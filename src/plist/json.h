// Reader and writer of the JSON form of property-list values, which the
// daemon accepts beside XML and the client prints for scripts.
//
// The mapping, chosen so that every value reads back as it was written:
//
//   dictionary   object, keys in the dictionary's order
//   array        array
//   string       string (UTF-8; a NUL is written as \u0000)
//   boolean      true / false
//   integer      a JSON integer, exact over the whole signed and unsigned
//                64-bit ranges: 18446744073709551615 reads back unsigned,
//                -5 and 5 read back signed (as in XML, an integer that fits
//                a signed 64-bit value is read as signed)
//   real         a JSON number that always has a fraction or an exponent
//                (1.0, -0.0, 1e+308), so it never reads back as an integer;
//                written with the fewest digits that read back exactly.
//                NaN and the infinities have no JSON form: they are written
//                as null
//   date         {"$date": "2026-11-23T10:00:00Z"}, UTC; a fraction of a
//                second is written when the date has one
//                ("2026-11-23T10:00:00.25Z"). Years outside 0001..9999 are
//                clamped to them, as in XML
//   data         {"$data": "<base64>"}
//   no value     null (and null reads back as no value)
//
// An object whose only key starts with "$" is a tag. "$date" and "$data"
// are read as above; {"$dict": {...}} is the dictionary inside it, which
// is how the writer carries a dictionary that has a single key starting
// with "$" (so {"$date": 5} as a dictionary survives a round trip). Any
// other single "$" key, or a tag whose value has the wrong form, is refused.
//
// Readers never throw and never return a half-built value: either the whole
// document parsed, or `error` says why not. Nesting deeper than 512 levels,
// integers beyond the 64-bit ranges, invalid UTF-8 and trailing text after
// the value are refused. Safe to call from several threads.
#pragma once

#include <string>
#include <string_view>

#include "plist/codec.h"
#include "plist/value.h"

namespace plist {

// Parses one JSON value (any type at the root).
Parsed parse_json(std::string_view text);

// Writes value as JSON text, on one line, or indented by two spaces per
// level when pretty. Strings that are not valid UTF-8 have each bad
// sequence replaced by U+FFFD, so the output always reads back.
std::string write_json(const Value& value, bool pretty = false);

}  // namespace plist
