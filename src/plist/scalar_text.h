// Texts of the scalar kinds that have no native form in a text format and
// are spelled the same wherever they are written: dates as ISO 8601 UTC
// and data as base64. Pure functions; safe from any thread.
#pragma once

#include <string>
#include <string_view>

#include "plist/value.h"

namespace scalar_text {

// "YYYY-MM-DDTHH:MM:SSZ" for seconds since 1970. Dates before year 0001 or
// after 9999 are clamped to those years so the text keeps its four-digit
// form; NaN becomes the epoch. With keep_fraction, a date that is not a
// whole second gets its fraction, in the fewest digits that read back to
// the same date ("...T10:00:00.25Z"); otherwise it is truncated toward the
// earlier second.
void append_iso_date(std::string& out, double seconds, bool keep_fraction);

// Reads the form above (blanks around it are not allowed); a fraction is
// accepted only when allow_fraction. False for anything else, including
// impossible calendar dates such as February 30.
bool parse_iso_date(std::string_view text, bool allow_fraction, plist::Date& out);

// Standard base64 with padding, on one line.
void append_base64(std::string& out, const plist::Data& data);

// Reads base64; blanks anywhere are skipped (writers wrap lines), padding
// is optional but nothing but padding may follow it. False on any other
// character.
bool decode_base64(std::string_view text, plist::Data& out);

}  // namespace scalar_text
