// Where each system log the console names is found on this machine. The
// console knows a fixed set of logs by identifier ("systemLog",
// "kernelLog", ...); a Linux machine keeps them under other names, or only
// in the systemd journal. Each identifier maps to candidate files, the
// first one present being served, and to journal matches used when none
// is.
//
// The host configuration's "logs" dictionary holds the mapping:
//   identifier -> {"files": [absolute paths], "journal": [matches]}
// where a match is "FIELD=value" or "+" (see JournalLog::restrict_to), an
// empty "journal" array means every entry and a missing one no journal.
//
// Built once and then only read; safe to share between threads.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "plist/value.h"

namespace hubwardend {

struct LogSource {
  // Absolute paths as the module names them, tried in order.
  std::vector<std::string> files;
  // Journal matches when the journal stands in for a missing file;
  // nullopt when it does not.
  std::optional<std::vector<std::string>> journal;

  bool operator==(const LogSource&) const = default;
};

using LogSources = std::map<std::string, LogSource>;

// The mapping this program ships with, for Debian and its relatives: each
// log's own path first, then what rsyslog writes, then the journal.
LogSources default_log_sources();

// Lays the "logs" dictionary of a host configuration over base: an
// identifier's entry replaces the one of the same name. Returns false, with
// *error set and base untouched, when the dictionary is not shaped as
// above. A configuration without "logs" changes nothing.
bool apply_log_config(const plist::Dict& config, LogSources* base, std::string* error);

// The mapping in effect: the defaults, overlaid with the shipped host
// configuration and then the administrator's, both read under the root. A
// malformed file is logged and skipped whole.
LogSources load_log_sources();

}  // namespace hubwardend
