// A file descriptor that closes itself. Not copyable; moving hands the
// descriptor over. Not safe to share between threads without a lock.
#pragma once

#include <errno.h>
#include <unistd.h>

#include <utility>

namespace platform {

class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    reset(other.release());
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { reset(); }

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  // Gives up ownership; the caller closes the result.
  int release() { return std::exchange(fd_, -1); }
  // Closes the held descriptor (keeping errno as it was) and takes fd.
  void reset(int fd = -1) {
    if (fd_ >= 0) {
      int saved = errno;
      ::close(fd_);
      errno = saved;
    }
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

}  // namespace platform
