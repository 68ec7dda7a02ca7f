// The per-thread requesting user.
#include "hubwardend/requester.h"

#include <errno.h>
#include <pwd.h>
#include <unistd.h>

#include <vector>

namespace hubwardend {
namespace {

// Points at the user string of the innermost ScopedUser on this thread.
thread_local const std::string* tCurrentUser = nullptr;

}  // namespace

std::string running_user_name() {
  uid_t uid = geteuid();
  long suggested = sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(suggested > 0 ? static_cast<size_t>(suggested) : 16384);
  struct passwd entry;
  struct passwd* found = nullptr;
  // ERANGE means the entry did not fit; grow a few times, then give up.
  for (int attempt = 0; attempt < 4; ++attempt) {
    int rc = getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found);
    if (rc == 0) break;
    if (rc != ERANGE) {
      found = nullptr;
      break;
    }
    buffer.resize(buffer.size() * 4);
  }
  if (found && found->pw_name && found->pw_name[0] != '\0') return found->pw_name;
  return std::to_string(uid);
}

std::optional<std::string> scoped_user() {
  if (!tCurrentUser) return std::nullopt;
  return *tCurrentUser;
}

std::string HostRequester::user_for(const plist::Dict*) { return tCurrentUser ? *tCurrentUser : default_user_; }

ScopedUser::ScopedUser(const std::string& user) : user_(user), previous_(tCurrentUser) { tCurrentUser = &user_; }

ScopedUser::~ScopedUser() { tCurrentUser = previous_; }

}  // namespace hubwardend
