// The fixed table of system logs a console may view, and do_read_file.
#include "monitor/log_paths.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "platform/root_fs.h"
#include "platform/unique_fd.h"
#include "request/operations.h"

namespace hubwarden {

ErrorName get_log_paths(std::optional<Dict>& paths) {
  Dict table;
  table.set("systemLog", "/var/log/system.log");
  table.set("kernelLog", "/var/log/kernel.log");
  table.set("softwareUpdateLog", "/Library/Logs/Software Update.log");
  table.set("secureLog", "/var/log/secure.log");
  paths = std::move(table);
  return nullptr;
}

namespace {

// Fills buffer from the start of the file as far as it goes; the count read,
// or -1 on an error.
ssize_t read_from_start(int fd, char* buffer, size_t size) {
  size_t got = 0;
  while (got < size) {
    ssize_t n = ::pread(fd, buffer + got, size - got, static_cast<off_t>(got));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return -1;
    if (n == 0) break;
    got += static_cast<size_t>(n);
  }
  return static_cast<ssize_t>(got);
}

}  // namespace

std::unique_ptr<char[]> do_read_file(const char* path, size_t* length) {
  *length = 0;
  // Opened inside the sandbox root, and never a FIFO or device that could
  // block the request or hand back endless data.
  platform::UniqueFd fd(platform::open_confined(path, O_RDONLY | O_NONBLOCK));
  if (!fd.valid()) return nullptr;
  struct stat st;
  if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return nullptr;
  // Grows by 100 bytes and re-reads from the start each pass: meant for
  // small configuration files only. A file whose size is a multiple of 100
  // is only seen to end on the pass after, so the buffer always has a
  // terminating zero byte beyond the contents.
  for (size_t size = 100;; size += 100) {
    std::unique_ptr<char[]> buffer(new (std::nothrow) char[size]);
    if (!buffer) return nullptr;
    std::memset(buffer.get(), 0, size);
    ssize_t got = read_from_start(fd.get(), buffer.get(), size);
    if (got < 0) return nullptr;
    if (static_cast<size_t>(got) < size) {
      if (got == 0) return nullptr;
      *length = static_cast<size_t>(got);
      return buffer;
    }
  }
}

}  // namespace hubwarden
