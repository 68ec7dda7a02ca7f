// PRETTY_HOSTNAME lines written the way env-file readers parse them back.
#include "platform/linux/machine_info.h"

namespace platform::machine_info {

namespace {

constexpr std::string_view kKey = "PRETTY_HOSTNAME=";

bool is_plain(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         std::string_view("-_.,:/+@%").find(c) != std::string_view::npos;
}

bool assigns_pretty_hostname(std::string_view line) {
  size_t i = line.find_first_not_of(" \t");
  if (i == std::string_view::npos) return false;
  line.remove_prefix(i);
  if (line.substr(0, 7) == "export ") line.remove_prefix(7);
  return line.substr(0, kKey.size()) == kKey;
}

}  // namespace

std::string quote_value(std::string_view value) {
  bool plain = !value.empty();
  for (char c : value) plain = plain && is_plain(c);
  if (plain) return std::string(value);
  std::string out = "\"";
  for (char c : value) {
    if (c == '"' || c == '\\' || c == '$' || c == '`') out += '\\';
    out += c;
  }
  out += '"';
  return out;
}

std::string with_pretty_hostname(std::string_view text, std::string_view name) {
  const std::string assignment = std::string(kKey) + quote_value(name);
  std::string out;
  bool written = false;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    const size_t next = end == std::string_view::npos ? text.size() : end + 1;
    std::string_view line = text.substr(start, (end == std::string_view::npos ? text.size() : end) - start);
    if (!assigns_pretty_hostname(line)) {
      out.append(text.substr(start, next - start));
    } else if (!written) {
      out += assignment;
      out += '\n';
      written = true;
    }
    start = next;
  }
  if (!written) {
    if (!out.empty() && out.back() != '\n') out += '\n';
    out += assignment;
    out += '\n';
  }
  return out;
}

}  // namespace platform::machine_info
