// Small text helpers every library shares: trimming, splitting into lines,
// words and lists, and strict decimal parsing. Pure functions over string
// views; safe from any thread. Views that come back point into the input,
// so they live only as long as it does.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <type_traits>
#include <vector>

namespace text {

// Space, tab, CR and LF: the blanks of configuration files and of XML.
inline constexpr std::string_view kBlanks = " \t\r\n";

inline bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// s without the characters of blanks at either end.
std::string_view trim(std::string_view s, std::string_view blanks = kBlanks);

// The first run of characters other than space and tab, after trimming.
std::string_view first_word(std::string_view s);

// The runs of characters other than space and tab, in order.
std::vector<std::string_view> split_words(std::string_view s);

// The items of a separated list, each trimmed; empty items are dropped.
std::vector<std::string_view> split_list(std::string_view s, char separator);

// Calls visit with each line of text, without its '\n'. A visitor that
// returns bool stops the walk by returning true. A final line without a
// newline is visited too; an empty text has no lines.
template <typename Visit>
void for_each_line(std::string_view text, Visit&& visit) {
  while (!text.empty()) {
    size_t end = text.find('\n');
    std::string_view line = text.substr(0, end);
    if constexpr (std::is_same_v<std::invoke_result_t<Visit&, std::string_view>, bool>) {
      if (visit(line)) return;
    } else {
      visit(line);
    }
    if (end == std::string_view::npos) return;
    text.remove_prefix(end + 1);
  }
}

// The value of s when it is nothing but decimal digits (no sign, no
// blanks) and fits; nullopt otherwise.
std::optional<uint64_t> parse_unsigned(std::string_view s);
std::optional<uint32_t> parse_u32(std::string_view s);

}  // namespace text
