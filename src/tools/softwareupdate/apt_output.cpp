// apt's output is line oriented and stable under LANG=C; these readers
// split it into lines and pick fields by their labels and brackets, never
// by column, so that extra fields in newer apt versions do no harm.
#include "tools/softwareupdate/apt_output.h"

#include <charconv>

namespace softwareupdate {
namespace {

// Calls f with each line of text, without its line end.
template <typename F>
void for_each_line(std::string_view text, F&& f) {
  while (!text.empty()) {
    size_t end = text.find('\n');
    std::string_view line = text.substr(0, end);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    f(line);
    if (end == std::string_view::npos) break;
    text.remove_prefix(end + 1);
  }
}

std::string_view trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  return s;
}

// The value of "Label: value" when line starts with label and a colon.
std::optional<std::string_view> field(std::string_view line, std::string_view label) {
  if (!line.starts_with(label) || line.size() <= label.size() || line[label.size()] != ':') return std::nullopt;
  return trim(line.substr(label.size() + 1));
}

std::optional<PendingUpgrade> parse_inst_line(std::string_view line) {
  constexpr std::string_view kPrefix = "Inst ";
  if (!line.starts_with(kPrefix)) return std::nullopt;
  line.remove_prefix(kPrefix.size());
  size_t space = line.find(' ');
  if (space == 0 || space == std::string_view::npos) return std::nullopt;
  PendingUpgrade u;
  u.name = std::string(line.substr(0, space));
  line = trim(line.substr(space));
  if (!line.starts_with('[')) return std::nullopt;  // a new package, not an upgrade
  size_t close = line.find(']');
  if (close == std::string_view::npos || close == 1) return std::nullopt;
  u.installed_version = std::string(line.substr(1, close - 1));
  line = trim(line.substr(close + 1));
  if (!line.starts_with('(')) return std::nullopt;
  line.remove_prefix(1);
  size_t end = line.find_first_of(" )");
  if (end == 0 || end == std::string_view::npos) return std::nullopt;
  u.candidate_version = std::string(line.substr(0, end));
  return u;
}

}  // namespace

std::vector<PendingUpgrade> parse_simulated_upgrade(std::string_view text) {
  std::vector<PendingUpgrade> upgrades;
  for_each_line(text, [&](std::string_view line) {
    if (auto u = parse_inst_line(line)) upgrades.push_back(std::move(*u));
  });
  return upgrades;
}

std::vector<PackageRecord> parse_package_records(std::string_view text) {
  std::vector<PackageRecord> records;
  PackageRecord current;
  bool in_stanza = false;
  auto finish = [&] {
    if (in_stanza && !current.name.empty()) records.push_back(std::move(current));
    current = PackageRecord{};
    in_stanza = false;
  };
  for_each_line(text, [&](std::string_view line) {
    if (trim(line).empty()) {
      finish();
      return;
    }
    in_stanza = true;
    if (line.front() == ' ' || line.front() == '\t') return;  // continuation of a long field
    if (auto v = field(line, "Package")) {
      current.name = std::string(*v);
    } else if (auto v = field(line, "Version")) {
      current.version = std::string(*v);
    } else if (auto v = field(line, "Size")) {
      uint64_t size = 0;
      auto [end, ec] = std::from_chars(v->data(), v->data() + v->size(), size);
      if (ec == std::errc() && end == v->data() + v->size()) current.size = size;
    } else if (auto v = field(line, "Description")) {
      current.summary = std::string(*v);
    } else if (current.summary.empty()) {
      // Translated descriptions arrive as "Description-en:" and friends.
      if (line.starts_with("Description-") && !line.starts_with("Description-md5")) {
        size_t colon = line.find(':');
        if (colon != std::string_view::npos) current.summary = std::string(trim(line.substr(colon + 1)));
      }
    }
  });
  finish();
  return records;
}

std::map<std::string, PolicyEntry> parse_policy(std::string_view text) {
  std::map<std::string, PolicyEntry> policies;
  PolicyEntry* current = nullptr;
  for_each_line(text, [&](std::string_view line) {
    if (line.empty()) return;
    if (line.front() != ' ' && line.back() == ':') {
      current = &policies[std::string(line.substr(0, line.size() - 1))];
      return;
    }
    if (current == nullptr) return;
    std::string_view body = trim(line);
    if (auto v = field(body, "Installed")) {
      current->installed = std::string(*v);
    } else if (auto v = field(body, "Candidate")) {
      current->candidate = std::string(*v);
    }
  });
  return policies;
}

std::string first_apt_error(std::string_view text) {
  std::string error;
  for_each_line(text, [&](std::string_view line) {
    if (error.empty() && line.starts_with("E: ")) error = std::string(trim(line.substr(3)));
  });
  return error;
}

}  // namespace softwareupdate
