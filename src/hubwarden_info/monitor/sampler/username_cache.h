// User names by user number, looked up once per number. A table of a few
// thousand processes has only a handful of distinct owners, and each
// look-up may go to a directory service, so the answers (including "no such
// user") are kept for the life of the cache. Not thread-safe.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>

namespace hubwarden {

class UsernameCache {
 public:
  // The user's name, or nullptr when the number has no user. The pointer
  // stays valid until the cache is cleared or destroyed.
  const char* lookup(uint32_t uid);

  void clear() { names_.clear(); }
  size_t size() const { return names_.size(); }

 private:
  static std::optional<std::string> look_up_uncached(uint32_t uid);

  std::unordered_map<uint32_t, std::optional<std::string>> names_;
};

}  // namespace hubwarden
