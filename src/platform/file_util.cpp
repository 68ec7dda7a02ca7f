// Whole-file reads and atomic replacement, confined to the sandbox root.
#include "platform/file_util.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <charconv>
#include <string>

#include "platform/root_fs.h"
#include "platform/unique_fd.h"

namespace platform {

namespace {

// A temporary file this old belongs to no writer still at work, whatever
// its process id says: a write takes milliseconds.
constexpr time_t kStaleTemporaryAge = 10 * 60;

void set(ReadError* error, ReadError value) {
  if (error != nullptr) *error = value;
}

bool write_all(int fd, std::string_view data) {
  while (!data.empty()) {
    ssize_t n = ::write(fd, data.data(), data.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

// The writer's process id in a temporary name "<leaf>.tmp.<pid>.<n>", or 0
// when name is not one of leaf's temporary files.
pid_t temporary_owner(std::string_view name, std::string_view leaf) {
  constexpr std::string_view kMarker = ".tmp.";
  if (name.size() <= leaf.size() + kMarker.size() || name.substr(0, leaf.size()) != leaf ||
      name.substr(leaf.size(), kMarker.size()) != kMarker)
    return 0;
  std::string_view rest = name.substr(leaf.size() + kMarker.size());
  pid_t pid = 0;
  auto [after_pid, ec] = std::from_chars(rest.data(), rest.data() + rest.size(), pid);
  if (ec != std::errc() || pid <= 0 || after_pid == rest.data() + rest.size() || *after_pid != '.') return 0;
  unsigned long sequence = 0;
  auto [end, ec2] = std::from_chars(after_pid + 1, rest.data() + rest.size(), sequence);
  if (ec2 != std::errc() || end != rest.data() + rest.size()) return 0;
  return pid;
}

bool process_exists(pid_t pid) {
  struct stat st;
  if (::stat(("/proc/" + std::to_string(pid)).c_str(), &st) == 0) return true;
  // Without /proc nothing can be told; leave it to the age rule.
  return errno != ENOENT || ::stat("/proc/self", &st) != 0;
}

// Removes the temporary files of leaf in dir whose writer is gone or that
// are too old to belong to a write in progress.
void remove_stale_temporaries(int dir, const std::string& leaf) {
  UniqueFd copy(::openat(dir, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  DIR* listing = copy.valid() ? ::fdopendir(copy.get()) : nullptr;
  if (listing == nullptr) return;
  copy.release();  // closedir closes it
  time_t now = ::time(nullptr);
  while (struct dirent* entry = ::readdir(listing)) {
    pid_t owner = temporary_owner(entry->d_name, leaf);
    if (owner == 0) continue;
    struct stat st;
    if (::fstatat(dir, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(st.st_mode)) continue;
    // Our own process may be writing the same file on another thread.
    bool writer_gone = owner != ::getpid() && !process_exists(owner);
    if (writer_gone || now - st.st_mtime > kStaleTemporaryAge) ::unlinkat(dir, entry->d_name, 0);
  }
  ::closedir(listing);
}

}  // namespace

std::optional<std::string> read_file(const std::string& path, size_t max_bytes, ReadError* error) {
  set(error, ReadError::kNone);
  // O_NONBLOCK: opening a FIFO must not wait for a writer. It is refused
  // below, like every other file that is not a regular one.
  UniqueFd fd(open_confined(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!fd.valid()) {
    set(error, errno == ENOENT || errno == ENOTDIR ? ReadError::kNotFound : ReadError::kUnreadable);
    return std::nullopt;
  }
  struct stat st;
  if (::fstat(fd.get(), &st) != 0) {
    set(error, ReadError::kUnreadable);
    return std::nullopt;
  }
  if (!S_ISREG(st.st_mode)) {
    set(error, ReadError::kNotRegular);
    return std::nullopt;
  }
  if (st.st_size > 0 && static_cast<uint64_t>(st.st_size) > max_bytes) {
    set(error, ReadError::kTooLarge);
    return std::nullopt;
  }
  std::string out;
  if (st.st_size > 0) out.reserve(static_cast<size_t>(st.st_size));
  char buf[65536];
  // Files of /proc and /sys report no size, and any file may grow while we
  // read: the limit is checked against what was actually read.
  for (;;) {
    ssize_t n = ::read(fd.get(), buf, sizeof buf);
    if (n < 0) {
      if (errno == EINTR) continue;
      set(error, ReadError::kUnreadable);
      return std::nullopt;
    }
    if (n == 0) break;
    if (static_cast<size_t>(n) > max_bytes - out.size()) {
      set(error, ReadError::kTooLarge);
      return std::nullopt;
    }
    out.append(buf, static_cast<size_t>(n));
  }
  return out;
}

bool make_directories(const std::string& path, unsigned mode) { return make_directories_confined(path, mode) == 0; }

bool file_exists(const std::string& path) {
  UniqueFd fd(open_confined(path, O_PATH | O_CLOEXEC));
  return fd.valid();
}

bool write_file_atomically(const std::string& path, std::string_view contents, unsigned mode) {
  std::string leaf;
  UniqueFd dir(open_parent_confined(path, /*create_parents=*/true, &leaf));
  if (!dir.valid()) return false;
  remove_stale_temporaries(dir.get(), leaf);

  static std::atomic<unsigned> counter{0};
  std::string tmp = leaf + ".tmp." + std::to_string(::getpid()) + "." + std::to_string(counter++);
  UniqueFd fd(::openat(dir.get(), tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
  if (!fd.valid()) return false;
  bool ok = write_all(fd.get(), contents) && ::fsync(fd.get()) == 0;
  ok = ::close(fd.release()) == 0 && ok;
  // renameat replaces the entry itself, never what a link there points to.
  if (ok && ::renameat(dir.get(), tmp.c_str(), dir.get(), leaf.c_str()) == 0) {
    ::fsync(dir.get());  // make the rename itself durable
    return true;
  }
  ::unlinkat(dir.get(), tmp.c_str(), 0);
  return false;
}

}  // namespace platform
