// Trimming, splitting and decimal parsing shared by the whole tree.
#include "plist/text_util.h"

#include <charconv>

namespace text {

std::string_view trim(std::string_view s, std::string_view blanks) {
  size_t begin = s.find_first_not_of(blanks);
  if (begin == std::string_view::npos) return {};
  size_t end = s.find_last_not_of(blanks);
  return s.substr(begin, end - begin + 1);
}

namespace {

bool is_word_break(char c) { return c == ' ' || c == '\t'; }

}  // namespace

std::string_view first_word(std::string_view s) {
  s = trim(s);
  size_t end = 0;
  while (end < s.size() && !is_word_break(s[end])) ++end;
  return s.substr(0, end);
}

std::vector<std::string_view> split_words(std::string_view s) {
  std::vector<std::string_view> words;
  size_t i = 0;
  while (i < s.size()) {
    while (i < s.size() && is_word_break(s[i])) ++i;
    size_t start = i;
    while (i < s.size() && !is_word_break(s[i])) ++i;
    if (i > start) words.push_back(s.substr(start, i - start));
  }
  return words;
}

std::vector<std::string_view> split_list(std::string_view s, char separator) {
  std::vector<std::string_view> items;
  while (!s.empty()) {
    size_t at = s.find(separator);
    std::string_view item = trim(s.substr(0, at));
    if (!item.empty()) items.push_back(item);
    if (at == std::string_view::npos) break;
    s.remove_prefix(at + 1);
  }
  return items;
}

namespace {

// from_chars alone would take a leading '-' for signed types and stop
// quietly at the first non-digit; both are refused here.
template <typename T>
std::optional<T> parse_digits(std::string_view s) {
  if (s.empty() || s.front() < '0' || s.front() > '9') return std::nullopt;
  T value = 0;
  auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), value);
  if (ec != std::errc() || end != s.data() + s.size()) return std::nullopt;
  return value;
}

}  // namespace

std::optional<uint64_t> parse_unsigned(std::string_view s) { return parse_digits<uint64_t>(s); }

std::optional<uint32_t> parse_u32(std::string_view s) { return parse_digits<uint32_t>(s); }

}  // namespace text
