// Turning what an administrator types into request values: key=value
// arguments, request files and time spans. Pure functions; safe from any
// thread. Failures come back as a message for the usage error.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "plist/value.h"

namespace hubwarden_client {

// The value of one typed word: "true" and "false" are booleans, a decimal
// integer (optionally signed) is an integer (unsigned above INT64_MAX),
// anything else the string itself. Integers beyond 64 bits stay strings.
plist::Value parse_word_value(std::string_view word);

// Adds each "key=value" (value as parse_word_value) or "key:=JSON" (any
// JSON value, for arrays, dictionaries, reals and strings that look like
// numbers) to *out, in order; a later key replaces an earlier one. Returns
// "" on success, otherwise a message naming the bad argument (and *out is
// left partly filled).
std::string add_key_values(const std::vector<std::string>& arguments, plist::Dict* out);

// Reads a request from text: an XML property list when it starts with '<'
// (after blanks), JSON otherwise. The request must be a dictionary with a
// string "command". Returns "" or a message.
std::string parse_request_text(std::string_view text, plist::Dict* out);

// "90" or "90s", "15m", "1h", "2d", "1w" in seconds; nullopt for anything
// else, for 0 and for spans above ten years.
std::optional<int64_t> parse_time_span(std::string_view text);

}  // namespace hubwarden_client
