// The list of updates the administrator chose to ignore: package names in
// a property-list array of strings, kept in a file of its own. Ignoring is
// a filter applied when a scan reports (the entry stays, marked "ignored")
// rather than an apt hold: holds belong to the administrator's own apt
// configuration and stay theirs, and ignoring an update is not pinning the
// package. Not thread-safe.
#pragma once

#include <string>
#include <vector>

namespace softwareupdate {

inline constexpr char kDefaultIgnoreFile[] = "/var/lib/hubwarden/swupdate-ignored.plist";

struct IgnoreList {
  std::vector<std::string> names;
  std::string error;  // why the file could not be read; names is then empty
  bool contains(const std::string& name) const;
};

// Reads the list. A missing file is an empty list, not an error; a file
// that is not an array of strings is an error (non-string members of an
// array are skipped).
IgnoreList load_ignore_list(const std::string& path);

// Adds names not yet present, in order, keeping the existing ones first.
void add_ignored(IgnoreList& list, const std::vector<std::string>& names);

// Writes the list atomically, creating the file's folder when needed.
// Returns "" on success, else a one-line reason.
std::string save_ignore_list(const std::string& path, const IgnoreList& list);

}  // namespace softwareupdate
