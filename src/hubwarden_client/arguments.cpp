#include "hubwarden_client/arguments.h"

#include <charconv>
#include <limits>

#include "plist/codec.h"
#include "plist/json.h"
#include "plist/text_util.h"

namespace hubwarden_client {

plist::Value parse_word_value(std::string_view word) {
  if (word == "true") return plist::Value(true);
  if (word == "false") return plist::Value(false);
  std::string_view digits = word;
  bool negative = false;
  if (!digits.empty() && (digits.front() == '-' || digits.front() == '+')) {
    negative = digits.front() == '-';
    digits.remove_prefix(1);
  }
  if (std::optional<uint64_t> magnitude = text::parse_unsigned(digits)) {
    constexpr uint64_t kMaxSigned = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
    if (!negative) {
      if (*magnitude <= kMaxSigned) return plist::Value(static_cast<int64_t>(*magnitude));
      return plist::Value(*magnitude);
    }
    if (*magnitude <= kMaxSigned) return plist::Value(-static_cast<int64_t>(*magnitude));
    if (*magnitude == kMaxSigned + 1) return plist::Value(std::numeric_limits<int64_t>::min());
  }
  return plist::Value(std::string(word));
}

std::string add_key_values(const std::vector<std::string>& arguments, plist::Dict* out) {
  for (const std::string& argument : arguments) {
    size_t equals = argument.find('=');
    if (equals == std::string::npos || equals == 0 || (equals == 1 && argument[0] == ':'))
      return "expected key=value or key:=JSON, got \"" + argument + "\"";
    std::string_view value_text = std::string_view(argument).substr(equals + 1);
    if (argument[equals - 1] == ':') {
      plist::Parsed parsed = plist::parse_json(value_text);
      if (!parsed.ok()) return "bad JSON in \"" + argument + "\": " + parsed.error;
      out->set(argument.substr(0, equals - 1), std::move(parsed.value));
    } else {
      out->set(argument.substr(0, equals), parse_word_value(value_text));
    }
  }
  return "";
}

std::string parse_request_text(std::string_view text, plist::Dict* out) {
  std::string_view trimmed = text::trim(text);
  plist::Parsed parsed = trimmed.starts_with('<') ? plist::parse_xml(text) : plist::parse_json(text);
  if (!parsed.ok()) return parsed.error;
  plist::Dict* request = parsed.value.as_dict();
  if (!request) return "the request is not a dictionary";
  if (!request->find_string("command")) return "the request has no \"command\" string";
  *out = std::move(*request);
  return "";
}

std::optional<int64_t> parse_time_span(std::string_view text) {
  if (text.empty()) return std::nullopt;
  int64_t unit = 1;
  switch (text.back()) {
    case 's':
      unit = 1;
      break;
    case 'm':
      unit = 60;
      break;
    case 'h':
      unit = 3600;
      break;
    case 'd':
      unit = 86400;
      break;
    case 'w':
      unit = 7 * 86400;
      break;
    default:
      unit = 0;
  }
  if (unit != 0)
    text.remove_suffix(1);
  else
    unit = 1;
  std::optional<uint64_t> count = text::parse_unsigned(text);
  constexpr uint64_t kTenYears = 10ull * 366 * 86400;
  if (!count || *count == 0 || *count > kTenYears / static_cast<uint64_t>(unit)) return std::nullopt;
  return static_cast<int64_t>(*count) * unit;
}

}  // namespace hubwarden_client
