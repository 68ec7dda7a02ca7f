// Who the host is running a call for. The host names the requesting user
// around each request or idle pass with a ScopedUser; the module asks for it
// through platform::Requester (do_get_user). The name is kept per thread,
// so concurrent calls on different threads each see their own user. Work
// a call queues in the background carries the call's user with it
// (background_queue.h); a thread outside any call sees the host's default
// user.
#pragma once

#include <optional>
#include <string>

#include "platform/host_services.h"

namespace hubwardend {

// The short name of the user this process runs as (effective uid), or the
// decimal uid when the user database has no entry for it.
std::string running_user_name();

class HostRequester : public platform::Requester {
 public:
  explicit HostRequester(std::string default_user) : default_user_(std::move(default_user)) {}
  HostRequester(const HostRequester&) = delete;
  HostRequester& operator=(const HostRequester&) = delete;

  // The user of the call running on this thread, else the default user.
  std::string user_for(const plist::Dict* context) override;
  const std::string& default_user() const { return default_user_; }

 private:
  const std::string default_user_;
};

// The user named by the innermost ScopedUser on this thread; nullopt
// outside any.
std::optional<std::string> scoped_user();

// Names user as the requester on this thread until destroyed; nests.
class ScopedUser {
 public:
  explicit ScopedUser(const std::string& user);
  ~ScopedUser();
  ScopedUser(const ScopedUser&) = delete;
  ScopedUser& operator=(const ScopedUser&) = delete;

 private:
  const std::string user_;
  const std::string* previous_;
};

}  // namespace hubwardend
