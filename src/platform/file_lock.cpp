// Advisory lock files taken with flock and a bounded wait.
#include "platform/file_lock.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <thread>
#include <utility>

#include "platform/root_fs.h"

namespace platform {

std::optional<FileLock> FileLock::acquire(const std::string& path, Mode mode, std::chrono::milliseconds timeout) {
  UniqueFd fd(open_confined(path, O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK, 0600));
  // A reader without write access to the folder can still lock a lock file
  // that a writer made.
  if (!fd.valid() && (errno == EACCES || errno == EROFS))
    fd.reset(open_confined(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK));
  if (!fd.valid()) return std::nullopt;
  const int operation = (mode == Mode::Shared ? LOCK_SH : LOCK_EX) | LOCK_NB;
  // flock has no timed wait: poll, starting fast because most holders are
  // done within a millisecond, and backing off so that a long holder does
  // not cost a busy loop.
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  std::chrono::microseconds pause{100};
  for (;;) {
    if (::flock(fd.get(), operation) == 0) return FileLock(std::move(fd));
    if (errno != EWOULDBLOCK && errno != EINTR) break;
    auto now = std::chrono::steady_clock::now();
    if (now >= deadline) {
      errno = ETIMEDOUT;
      break;
    }
    std::this_thread::sleep_for(std::min<std::chrono::steady_clock::duration>(pause, deadline - now));
    pause = std::min<std::chrono::microseconds>(pause * 2, std::chrono::milliseconds(20));
  }
  return std::nullopt;  // fd closes keeping errno
}

}  // namespace platform
