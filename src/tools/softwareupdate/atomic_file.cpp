// Temporary file in the same folder, because rename(2) only replaces
// atomically within one file system.
#include "tools/softwareupdate/atomic_file.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

namespace softwareupdate {
namespace {

std::string failure(const std::string& what, const std::string& path, int error) {
  return what + " " + path + ": " + ::strerror(error);
}

bool write_all(int fd, std::string_view data) {
  while (!data.empty()) {
    ssize_t n = ::write(fd, data.data(), data.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

}  // namespace

std::string replace_file_atomically(const std::string& path, std::string_view contents, mode_t mode) {
  std::string pattern = path + ".XXXXXX";
  std::vector<char> temp(pattern.begin(), pattern.end());
  temp.push_back('\0');
  int fd = ::mkstemp(temp.data());
  if (fd < 0) return failure("cannot create a temporary file for", path, errno);
  std::string temp_path(temp.data());
  int error = 0;
  if (!write_all(fd, contents) || ::fchmod(fd, mode) != 0 || ::fsync(fd) != 0) error = errno;
  if (::close(fd) != 0 && error == 0) error = errno;
  if (error == 0 && ::rename(temp_path.c_str(), path.c_str()) != 0) error = errno;
  if (error != 0) {
    ::unlink(temp_path.c_str());
    return failure("cannot write", path, error);
  }
  return "";
}

}  // namespace softwareupdate
