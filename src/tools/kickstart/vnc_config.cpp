#include "tools/kickstart/vnc_config.h"

namespace kickstart {

namespace {

constexpr std::string_view kManagedComment =
    "# Remote desktop access, set by hubwarden's kickstart tool: system logins (PAM) over TLS.";

std::string_view trim_left(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  return s;
}

// Calls line(text) for each line of text, without its newline.
template <typename F>
void for_each_line(std::string_view text, F&& line) {
  while (!text.empty()) {
    size_t end = text.find('\n');
    if (end == std::string_view::npos) {
      line(text);
      return;
    }
    line(text.substr(0, end));
    text.remove_prefix(end + 1);
  }
}

// Whether line assigns the Perl scalar $name (names compare without case,
// as the wrapper matches them).
bool assigns(std::string_view line, std::string_view name) {
  line = trim_left(line);
  if (line.size() <= name.size() || line.front() != '$') return false;
  for (size_t i = 0; i < name.size(); ++i) {
    char a = line[1 + i], b = name[i];
    if ((a | 0x20) != (b | 0x20)) return false;
  }
  std::string_view rest = trim_left(line.substr(1 + name.size()));
  return !rest.empty() && rest.front() == '=';
}

void append_line(std::string* out, std::string_view line) {
  out->append(line);
  out->push_back('\n');
}

}  // namespace

std::string with_access_settings(std::string_view existing, Access access, const std::vector<std::string>& users) {
  std::string out;
  for_each_line(existing, [&](std::string_view line) {
    if (line == kManagedComment || assigns(line, "SecurityTypes") || assigns(line, "PlainUsers") ||
        assigns(line, "localhost"))
      return;
    append_line(&out, line);
  });
  std::string allowed;
  if (access == Access::kAllUsers) {
    allowed = "*";
  } else {
    for (const std::string& user : users) {
      if (!allowed.empty()) allowed += ',';
      allowed += user;
    }
  }
  append_line(&out, kManagedComment);
  append_line(&out, "$localhost = \"no\";");
  append_line(&out, "$SecurityTypes = \"X509Plain,TLSPlain\";");
  append_line(&out, "$PlainUsers = \"" + allowed + "\";");
  return out;
}

std::optional<std::string> display_user(std::string_view users_file, std::string_view display) {
  std::optional<std::string> found;
  for_each_line(users_file, [&](std::string_view line) {
    line = trim_left(line);
    if (found || line.size() <= display.size() || line.substr(0, display.size()) != display ||
        line[display.size()] != '=')
      return;
    std::string_view user = line.substr(display.size() + 1);
    while (!user.empty() && (user.back() == ' ' || user.back() == '\t' || user.back() == '\r')) user.remove_suffix(1);
    if (!user.empty()) found = std::string(user);
  });
  return found;
}

std::string with_display_user(std::string_view users_file, std::string_view display, std::string_view user) {
  std::string out(users_file);
  if (!out.empty() && out.back() != '\n') out.push_back('\n');
  out.append(display).append("=").append(user).push_back('\n');
  return out;
}

std::optional<std::string> unit_display(std::string_view unit) {
  size_t at = unit.find('@');
  size_t dot = unit.rfind('.');
  if (at == std::string_view::npos || dot == std::string_view::npos || dot <= at + 2) return std::nullopt;
  std::string_view instance = unit.substr(at + 1, dot - at - 1);
  if (instance.front() != ':') return std::nullopt;
  for (char c : instance.substr(1))
    if (c < '0' || c > '9') return std::nullopt;
  return std::string(instance);
}

std::vector<std::string> group_file_members(std::string_view group_file, std::string_view name) {
  std::vector<std::string> members;
  for_each_line(group_file, [&](std::string_view line) {
    if (line.size() <= name.size() || line.substr(0, name.size()) != name || line[name.size()] != ':') return;
    // name:password:gid:member,member
    size_t fields = 0, pos = 0;
    while (fields < 3 && pos != std::string_view::npos) {
      pos = line.find(':', pos);
      if (pos != std::string_view::npos) ++pos;
      ++fields;
    }
    if (pos == std::string_view::npos || !members.empty()) return;
    std::string_view list = line.substr(pos);
    while (!list.empty()) {
      size_t comma = list.find(',');
      std::string_view member = list.substr(0, comma);
      if (!member.empty()) members.emplace_back(member);
      if (comma == std::string_view::npos) break;
      list.remove_prefix(comma + 1);
    }
  });
  return members;
}

}  // namespace kickstart
