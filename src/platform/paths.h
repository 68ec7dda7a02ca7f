// Root-relative paths. Every absolute path the module uses goes through the
// installed Paths, so that a sandbox directory can stand in for "/" in tests
// and demos, and so that folders a Linux system does not have
// ("/Library/Preferences", "/private/var/run", ...) land in the places a
// Linux administrator looks for them ("/var/lib/hubwarden", "/run/hubwarden").
// The root never changes; the prefix table may be replaced while the
// host runs (a configuration reload). Safe from any thread.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace platform {

// A table of path prefixes and the folders they stand for. A path is under a
// prefix when it equals the prefix or continues it with '/': "/var/dbx" is
// not under "/var/db". The longest matching prefix wins, and a path is
// mapped once, never again through the result. Not thread-safe while being
// filled; safe to read from any thread afterwards.
class PathMap {
 public:
  // Maps prefix to target, replacing an entry for the same prefix. Both
  // must be absolute paths without "." or ".." components (repeated and
  // trailing slashes are dropped), prefix must not be "/", and target must
  // not lie inside prefix: such an entry would map paths that already went
  // through it a second time. Returns false, with *why set and the table
  // unchanged, when the entry is refused.
  bool set(std::string_view prefix, std::string_view target, std::string* why);
  // Removes the entry for prefix, if there is one.
  void erase(std::string_view prefix);

  // absolute_path with its longest mapped prefix replaced by that prefix's
  // target; absolute_path itself when no prefix matches.
  std::string map(std::string_view absolute_path) const;

  bool empty() const { return entries_.empty(); }
  // The entries, longest prefix first.
  const std::vector<std::pair<std::string, std::string>>& entries() const { return entries_; }

 private:
  std::vector<std::pair<std::string, std::string>> entries_;
};

class Paths {
 public:
  // root "/" (or empty) means the real file system. Maps no prefixes.
  explicit Paths(std::string root);
  // As above, with the prefix table applied before the root is prepended.
  Paths(std::string root, PathMap prefixes);
  Paths(const Paths&) = delete;
  Paths& operator=(const Paths&) = delete;

  const std::string& root() const { return root_; }
  bool is_real_root() const { return root_.empty(); }
  // A copy of the prefix table in effect.
  PathMap prefixes() const { return *current_prefixes(); }
  // Puts prefixes in effect for every later resolve(); a resolve() already
  // running finishes with the table it started with.
  void replace_prefixes(PathMap prefixes);
  // Returns the path of absolute_path under the root, after the prefix
  // table. The result never leaves the root for a path without ".."
  // components. REQUIRES: absolute_path begins with '/'.
  std::string resolve(std::string_view absolute_path) const;

 private:
  std::shared_ptr<const PathMap> current_prefixes() const;

  std::string root_;  // without trailing '/'; empty for "/"
  mutable std::mutex mu_;
  std::shared_ptr<const PathMap> prefixes_;  // guarded by mu_; never null
};

// Shorthand for get<Paths>().resolve(p).
std::string resolve(std::string_view absolute_path);

}  // namespace platform
