// Reading and editing one key of Avahi's INI-style configuration.
#include "platform/linux/avahi_host_name.h"

#include <vector>

#include "plist/text_util.h"

namespace platform::avahi_conf {

namespace {

constexpr std::string_view kSection = "server";
constexpr std::string_view kKey = "host-name";

struct Line {
  std::string_view text;  // without its line end
  size_t next;            // offset of the following line
};

std::vector<Line> split_lines(std::string_view text) {
  std::vector<Line> lines;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string_view::npos) end = text.size();
    lines.push_back({text.substr(start, end - start), std::min(end + 1, text.size())});
    start = end + 1;
  }
  return lines;
}

// The section a "[name]" line opens, or nullopt for any other line.
std::optional<std::string_view> section_of(std::string_view line) {
  line = text::trim(line);
  if (line.size() < 2 || line.front() != '[' || line.back() != ']') return std::nullopt;
  return text::trim(line.substr(1, line.size() - 2));
}

// The value when line sets kKey (comments never do).
std::optional<std::string_view> key_value(std::string_view line) {
  line = text::trim(line);
  if (line.empty() || line[0] == '#' || line[0] == ';') return std::nullopt;
  size_t eq = line.find('=');
  if (eq == std::string_view::npos || text::trim(line.substr(0, eq)) != kKey) return std::nullopt;
  return text::trim(line.substr(eq + 1));
}

}  // namespace

std::optional<std::string> host_name(std::string_view text) {
  bool in_server = false;
  std::optional<std::string> found;
  for (const Line& line : split_lines(text)) {
    if (std::optional<std::string_view> section = section_of(line.text)) {
      in_server = *section == kSection;
    } else if (std::optional<std::string_view> value = in_server ? key_value(line.text) : std::nullopt) {
      found = value->empty() ? std::nullopt : std::optional<std::string>(*value);
    }
  }
  return found;
}

std::string with_host_name(std::string_view text, std::string_view name) {
  const std::string setting = std::string(kKey) + "=" + std::string(name) + "\n";
  const std::vector<Line> lines = split_lines(text);
  // Where the new setting goes: over the last active one (the one Avahi
  // obeys), else below the section header.
  std::optional<size_t> replace, insert_after;
  bool in_server = false;
  for (size_t i = 0; i < lines.size(); ++i) {
    if (std::optional<std::string_view> section = section_of(lines[i].text)) {
      in_server = *section == kSection;
      if (in_server && !insert_after) insert_after = i;
    } else if (in_server && key_value(lines[i].text)) {
      replace = i;
    }
  }
  std::string out;
  size_t start = 0;
  for (size_t i = 0; i < lines.size(); ++i) {
    std::string_view raw = text.substr(start, lines[i].next - start);
    start = lines[i].next;
    if (replace == i) {
      out += setting;
      continue;
    }
    out.append(raw);
    if (!replace && insert_after == i) {
      if (out.back() != '\n') out += '\n';
      out += setting;
    }
  }
  if (!replace && !insert_after) {
    if (!out.empty() && out.back() != '\n') out += '\n';
    if (!out.empty()) out += '\n';
    out += "[" + std::string(kSection) + "]\n" + setting;
  }
  return out;
}

}  // namespace platform::avahi_conf
