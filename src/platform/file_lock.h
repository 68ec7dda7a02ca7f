// Advisory locks between processes. The daemon and a command-line run of
// the host can both read-modify-write the same file; each takes a lock on a
// separate lock file beside it (flock), so that neither loses the other's
// update. Locks are tied to an open file description, so two threads of one
// process that each hold a FileLock also exclude each other, and a process
// that dies releases its locks. Lock files below a sandbox root are opened
// without leaving it (root_fs.h).
//
// FileLock is movable, not copyable; one object is used by one thread.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <utility>

#include "platform/unique_fd.h"

namespace platform {

class FileLock {
 public:
  enum class Mode { Shared, Exclusive };

  // How long acquire waits by default before giving up.
  static constexpr std::chrono::milliseconds kDefaultTimeout{5000};

  // Opens (creating it, mode 0600, when it is missing) the lock file at
  // path and takes the lock, waiting up to timeout for a holder of a
  // conflicting lock. The parent directory must exist. Returns nullopt
  // when the file cannot be opened or the wait runs out; errno then says
  // which (ETIMEDOUT for the wait).
  static std::optional<FileLock> acquire(const std::string& path, Mode mode,
                                         std::chrono::milliseconds timeout = kDefaultTimeout);

  // The lock is released when the object (the only descriptor of the lock
  // file) goes away.
  FileLock(FileLock&&) noexcept = default;
  FileLock& operator=(FileLock&&) noexcept = default;

 private:
  explicit FileLock(UniqueFd fd) : fd_(std::move(fd)) {}
  UniqueFd fd_;
};

}  // namespace platform
