// For tests: real journal files with entries of known fields, written by
// systemd-journal-remote from its export-format input.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

namespace platform::testing {

inline constexpr const char kJournalRemote[] = "/lib/systemd/systemd-journal-remote";

struct ExportEntry {
  uint64_t realtime_usec;
  std::vector<std::pair<std::string, std::string>> fields;
};

inline bool have_journal_remote() { return ::access(kJournalRemote, X_OK) == 0; }

// One entry in the export format; values holding a newline or NUL take the
// length-prefixed binary form.
inline std::string export_entry(const ExportEntry& entry) {
  std::string out = "__REALTIME_TIMESTAMP=" + std::to_string(entry.realtime_usec) + "\n" +
                    "__MONOTONIC_TIMESTAMP=" + std::to_string(entry.realtime_usec) + "\n" +
                    "_BOOT_ID=0123456789abcdef0123456789abcdef\n";
  for (const auto& [name, value] : entry.fields) {
    if (value.find('\n') == std::string::npos && value.find('\0') == std::string::npos) {
      out += name + "=" + value + "\n";
      continue;
    }
    out += name + "\n";
    uint64_t size = value.size();
    for (int i = 0; i < 8; ++i) out.push_back(static_cast<char>((size >> (8 * i)) & 0xFF));
    out += value + "\n";
  }
  return out + "\n";
}

// Writes entries to the journal file path (which must end in ".journal"
// and not exist yet), giving the tool at most timeout_seconds. Returns false
// when the tool fails or is missing.
inline bool write_journal(const std::string& path, const std::vector<ExportEntry>& entries, int timeout_seconds = 30) {
  std::string input;
  for (const ExportEntry& entry : entries) input += export_entry(entry);
  std::string command = "timeout " + std::to_string(timeout_seconds) + " " + kJournalRemote + " --output='" + path +
                        "' - >/dev/null 2>&1";
  FILE* pipe = ::popen(command.c_str(), "w");
  if (pipe == nullptr) return false;
  bool written = std::fwrite(input.data(), 1, input.size(), pipe) == input.size();
  return ::pclose(pipe) == 0 && written;
}

}  // namespace platform::testing
