// Readers for the text the apt tools print, run with LANG=C so the labels
// are the English ones. Each reader takes the whole output, skips lines it
// does not recognise and never fails: unexpected text yields fewer results,
// not an error. Pure functions; thread-safe.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace softwareupdate {

// A package that an upgrade would move from one installed version to
// another.
struct PendingUpgrade {
  std::string name;  // may carry an architecture qualifier ("foo:i386")
  std::string installed_version;
  std::string candidate_version;
};

// The "Inst NAME [OLD] (NEW ...)" lines of a simulated upgrade
// ("apt-get -s dist-upgrade"), in apt's order. Lines without an installed
// version are packages the upgrade would newly pull in (a new kernel beside
// the old one, say); they are not upgrades of their own and are left out.
std::vector<PendingUpgrade> parse_simulated_upgrade(std::string_view text);

// One stanza of "apt-cache show".
struct PackageRecord {
  std::string name;
  std::string version;
  std::optional<uint64_t> size;  // "Size:", bytes of the .deb
  std::string summary;           // first line of "Description:"
};

// Every stanza that names a package, in order.
std::vector<PackageRecord> parse_package_records(std::string_view text);

// The "Installed:" and "Candidate:" lines of "apt-cache policy" for one
// package; "(none)" is kept as apt prints it.
struct PolicyEntry {
  std::string installed;
  std::string candidate;
};

// Keyed by the package name as apt-cache policy heads its block.
std::map<std::string, PolicyEntry> parse_policy(std::string_view text);

// The first "E: " line of an apt tool's error output without its prefix,
// or "" when there is none.
std::string first_apt_error(std::string_view text);

}  // namespace softwareupdate
