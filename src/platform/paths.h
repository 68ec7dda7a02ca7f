// Root-relative paths. Every absolute path the module uses goes through the
// installed Paths, so that a sandbox directory can stand in for "/" in tests
// and demos. Immutable after installation; safe from any thread.
#pragma once

#include <string>
#include <string_view>

namespace platform {

class Paths {
 public:
  // root "/" (or empty) means the real file system.
  explicit Paths(std::string root);
  Paths(const Paths&) = delete;
  Paths& operator=(const Paths&) = delete;

  const std::string& root() const { return root_; }
  bool is_real_root() const { return root_.empty(); }
  // Returns the path of absolute_path under the root. REQUIRES: absolute_path
  // begins with '/'.
  std::string resolve(std::string_view absolute_path) const;

 private:
  std::string root_;  // without trailing '/'; empty for "/"
};

// Shorthand for get<Paths>().resolve(p).
std::string resolve(std::string_view absolute_path);

}  // namespace platform
