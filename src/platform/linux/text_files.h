// Small readers for the text files the Linux services take their facts
// from: shell-style assignment files (os-release, machine-info), the
// first line of a file, and "key : value" blocks (cpuinfo). Internal to the
// Linux platform code; every reader is pure and safe from any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "plist/text_util.h"

namespace platform::linux_text {

// The tree's one trim (space, tab, CR, LF), named here for the readers below
// and their callers.
using text::trim;

// The assignments NAME=VALUE of a shell-style file, in file order, with the
// quoting removed: '...' literal, "..." with \ escaping " \ $ and `,
// unquoted text with \ escaping the next character. Comments and lines that
// are not assignments are skipped; an unterminated quote ends the value at
// the end of the line.
std::vector<std::pair<std::string, std::string>> parse_shell_assignments(std::string_view text);

// The last value assigned to name, or nullopt.
std::optional<std::string> shell_variable(std::string_view text, std::string_view name);

// The first line of the file at path that is neither blank nor a '#'
// comment, trimmed; nullopt when unreadable or there is none.
std::optional<std::string> read_first_line(const std::string& path);

// One "key : value" block per processor, as /proc/cpuinfo lays them out
// (blank lines between blocks); keys and values are trimmed.
using KeyValueBlock = std::vector<std::pair<std::string, std::string>>;
std::vector<KeyValueBlock> parse_colon_blocks(std::string_view text);

// The value of key in block, or nullptr.
const std::string* find_key(const KeyValueBlock& block, std::string_view key);

// A non-negative decimal integer that fills s once trimmed (a line read
// from /proc or /sys ends in a newline); nullopt on anything else,
// including overflow.
std::optional<uint64_t> parse_unsigned(std::string_view s);

// Multiplies without wrapping; nullopt on overflow.
std::optional<uint64_t> checked_multiply(uint64_t a, uint64_t b);

}  // namespace platform::linux_text
