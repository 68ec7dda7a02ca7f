// Log files opened so that no link leads anywhere a log should not be.
#include "hubwardend/log_file.h"

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "platform/paths.h"
#include "platform/registry.h"
#include "platform/root_fs.h"

namespace hubwardend {
namespace {

constexpr int kReadFlags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;

bool is_absence(int error) { return error == ENOENT || error == ENOTDIR; }

}  // namespace

gid_t log_group_id() {
  struct group entry;
  struct group* found = nullptr;
  std::vector<char> buffer(16384);
  if (::getgrnam_r(kLogGroup, &entry, buffer.data(), buffer.size(), &found) != 0 || found == nullptr)
    return static_cast<gid_t>(-1);
  return found->gr_gid;
}

bool is_trusted_log_owner(const struct stat& st, gid_t log_group) {
  return st.st_uid == 0 || (log_group != static_cast<gid_t>(-1) && st.st_gid == log_group);
}

LogFileOpen open_log_file(const std::string& absolute_path, gid_t log_group) {
  LogFileOpen result;
  const platform::Paths& paths = platform::get<platform::Paths>();
  const bool real_root = paths.is_real_root();
  // At the real root nothing confines the lookup, so the last component at
  // least must be the file itself; under a sandbox root links are resolved
  // inside it and may stay.
  const int fd = platform::open_confined(paths.resolve(absolute_path), kReadFlags | (real_root ? O_NOFOLLOW : 0));
  if (fd < 0) {
    const int error = errno;
    if (is_absence(error)) return result;
    result.outcome = LogFileOpen::kRefused;
    result.reason = error == ELOOP ? "is a symbolic link" : std::strerror(error);
    return result;
  }
  platform::UniqueFd owned(fd);
  struct stat st;
  result.outcome = LogFileOpen::kRefused;
  if (::fstat(owned.get(), &st) != 0) {
    result.reason = std::strerror(errno);
  } else if (!S_ISREG(st.st_mode)) {
    result.reason = "is not a regular file";
  } else if (real_root && !is_trusted_log_owner(st, log_group)) {
    result.reason = std::string("is owned by neither root nor group ") + kLogGroup;
  } else {
    result.outcome = LogFileOpen::kOpened;
    result.fd = std::move(owned);
  }
  return result;
}

platform::UniqueFd open_confined_directory(const std::string& absolute_path) {
  return platform::UniqueFd(
      platform::open_confined(platform::resolve(absolute_path), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

}  // namespace hubwardend
