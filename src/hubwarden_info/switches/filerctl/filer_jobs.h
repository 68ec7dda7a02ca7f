// Switching the file server's job and asking about it, through the
// platform's service manager. Safe from any thread.
#pragma once

#include <optional>

#include "plist/value.h"

namespace hubwarden {

// Enables (and starts) or disables (and stops) the job at label: a label
// beginning with "/" is its job description path, any other names the
// description "/System/Library/LaunchDaemons/<label>.plist". A null, empty
// or too long label logs "Cannot find ..." and returns kFilerBadArgument
// with errno EFAULT, EINVAL or ENAMETOOLONG. With a service manager
// installed the result is 0 whatever it answers; without one the job cannot
// be switched at all: kFilerJobToolFailed.
int FilerSetServiceState(const char* label, bool enable);

// 1 when the job at label is enabled, 0 when it is not or is unknown, -1
// for a null label or when no service manager is installed.
int FilerGetServiceState(const char* label);

// The file server jobs this client knows, each mapped to whether it is
// enabled ({"com.marlo.FilerServer": true}); nullopt without a service
// manager.
std::optional<plist::Dict> FilerCopyAllServicesInfo();

// Whether the file server's job is enabled. Only root may ask: any other
// caller gets false and a log line naming the enable operation.
bool FilerServerIsEnabled();

// Enables the file server's job; kFilerEnableRefused (logged) for a caller
// that is not root. Disabling is not checked for root.
int FilerEnableServer();
int FilerDisableServer();

// Whether path (under the root) can be examined; false for null.
bool FileExists(const char* path);

}  // namespace hubwarden
