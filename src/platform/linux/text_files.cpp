// Readers for shell-style assignment files, first lines and cpuinfo blocks.
#include "platform/linux/text_files.h"

#include "platform/file_util.h"

namespace platform::linux_text {

namespace {

bool is_name_char(char c, bool first) {
  if (c == '_' || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z')) return true;
  return !first && c >= '0' && c <= '9';
}

// Reads one shell word starting at text[*pos] up to the end of its line,
// removing quotes; leaves *pos after the word.
std::string read_word(std::string_view text, size_t* pos) {
  std::string out;
  size_t i = *pos;
  while (i < text.size()) {
    char c = text[i];
    if (c == '\n' || c == ' ' || c == '\t' || c == '\r') break;
    if (c == '\'') {
      ++i;
      while (i < text.size() && text[i] != '\'' && text[i] != '\n') out += text[i++];
      if (i < text.size() && text[i] == '\'') ++i;
    } else if (c == '"') {
      ++i;
      // Values are one line each: a quote left open ends with its line
      // rather than swallowing the assignments below it.
      while (i < text.size() && text[i] != '"' && text[i] != '\n') {
        if (text[i] == '\\' && i + 1 < text.size()) {
          char next = text[i + 1];
          if (next == '"' || next == '\\' || next == '$' || next == '`') {
            out += next;
            i += 2;
            continue;
          }
        }
        out += text[i++];
      }
      if (i < text.size() && text[i] == '"') ++i;
    } else if (c == '\\' && i + 1 < text.size()) {
      if (text[i + 1] != '\n') out += text[i + 1];
      i += 2;
    } else {
      out += c;
      ++i;
    }
  }
  *pos = i;
  return out;
}

}  // namespace

std::vector<std::pair<std::string, std::string>> parse_shell_assignments(std::string_view text) {
  std::vector<std::pair<std::string, std::string>> out;
  size_t i = 0;
  while (i < text.size()) {
    while (i < text.size() && (text[i] == ' ' || text[i] == '\t')) ++i;
    if (text.substr(i, 7) == "export ") i += 7;
    size_t name_start = i;
    while (i < text.size() && is_name_char(text[i], i == name_start)) ++i;
    if (i > name_start && i < text.size() && text[i] == '=') {
      std::string name(text.substr(name_start, i - name_start));
      ++i;
      out.emplace_back(std::move(name), read_word(text, &i));
    }
    // Whatever follows on the line (comments, junk) is not an assignment.
    while (i < text.size() && text[i] != '\n') ++i;
    if (i < text.size()) ++i;
  }
  return out;
}

std::optional<std::string> shell_variable(std::string_view text, std::string_view name) {
  std::optional<std::string> found;
  for (auto& [key, value] : parse_shell_assignments(text))
    if (key == name) found = std::move(value);
  return found;
}

std::optional<std::string> read_first_line(const std::string& path) {
  std::optional<std::string> contents = read_file(path);
  if (!contents) return std::nullopt;
  std::optional<std::string> found;
  text::for_each_line(*contents, [&](std::string_view line) {
    line = trim(line);
    if (line.empty() || line.front() == '#') return false;
    found = std::string(line);
    return true;
  });
  return found;
}

std::vector<KeyValueBlock> parse_colon_blocks(std::string_view contents) {
  std::vector<KeyValueBlock> blocks;
  bool in_block = false;
  text::for_each_line(contents, [&](std::string_view line) {
    if (trim(line).empty()) {
      in_block = false;
      return;
    }
    size_t colon = line.find(':');
    if (colon == std::string_view::npos) return;
    if (!in_block) {
      blocks.emplace_back();
      in_block = true;
    }
    blocks.back().emplace_back(std::string(trim(line.substr(0, colon))), std::string(trim(line.substr(colon + 1))));
  });
  return blocks;
}

const std::string* find_key(const KeyValueBlock& block, std::string_view key) {
  for (const auto& [k, v] : block)
    if (k == key) return &v;
  return nullptr;
}

std::optional<uint64_t> parse_unsigned(std::string_view s) { return text::parse_unsigned(trim(s)); }

std::optional<uint64_t> checked_multiply(uint64_t a, uint64_t b) {
  uint64_t product = 0;
  if (__builtin_mul_overflow(a, b, &product)) return std::nullopt;
  return product;
}

}  // namespace platform::linux_text
