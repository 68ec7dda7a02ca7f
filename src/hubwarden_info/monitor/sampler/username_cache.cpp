// Cached user-number to user-name look-ups through getpwuid_r.
#include "monitor/sampler/username_cache.h"

#include <errno.h>
#include <pwd.h>
#include <unistd.h>

#include <vector>

namespace hubwarden {

const char* UsernameCache::lookup(uint32_t uid) {
  auto it = names_.find(uid);
  if (it == names_.end()) it = names_.emplace(uid, look_up_uncached(uid)).first;
  return it->second ? it->second->c_str() : nullptr;
}

std::optional<std::string> UsernameCache::look_up_uncached(uint32_t uid) {
  long suggested = ::sysconf(_SC_GETPW_R_SIZE_MAX);
  size_t size = suggested > 0 ? static_cast<size_t>(suggested) : 1024;
  // Records with long member lists need more room than the suggestion; grow
  // on ERANGE, within reason.
  constexpr size_t kMaxBuffer = 1 << 20;
  for (;;) {
    std::vector<char> buffer(size);
    struct passwd entry;
    struct passwd* found = nullptr;
    int error = ::getpwuid_r(static_cast<uid_t>(uid), &entry, buffer.data(), buffer.size(), &found);
    if (error == ERANGE && size < kMaxBuffer) {
      size *= 2;
      continue;
    }
    if (error != 0 || !found || !found->pw_name) return std::nullopt;
    return std::string(found->pw_name);
  }
}

}  // namespace hubwarden
