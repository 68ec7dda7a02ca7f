// Confined path resolution below a sandbox root: openat2(RESOLVE_IN_ROOT)
// when the kernel has it, else our own walk with the same meaning.
#include "platform/root_fs.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <deque>
#include <vector>

#include "platform/paths.h"
#include "platform/registry.h"
#include "platform/unique_fd.h"

namespace platform {

namespace {

// As many links as the kernel follows in one lookup.
constexpr int kMaxLinks = 40;

// Set once openat2 has answered ENOSYS, so later opens go straight to the walk.
std::atomic<bool> g_openat2_missing{false};

bool takes_mode(int flags) { return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE; }

// The components of path in order, without empty ones and ".".
std::deque<std::string> split_components(std::string_view path) {
  std::deque<std::string> out;
  while (!path.empty()) {
    size_t slash = path.find('/');
    std::string_view part = path.substr(0, slash);
    if (!part.empty() && part != ".") out.emplace_back(part);
    if (slash == std::string_view::npos) break;
    path.remove_prefix(slash + 1);
  }
  return out;
}

// Reads the target of the link name in dir; false with errno set on failure.
bool read_link_at(int dir, const std::string& name, std::string* target) {
  char buf[4096];
  ssize_t n = ::readlinkat(dir, name.c_str(), buf, sizeof buf);
  if (n < 0) return false;
  if (static_cast<size_t>(n) >= sizeof buf) {
    errno = ENAMETOOLONG;
    return false;
  }
  target->assign(buf, static_cast<size_t>(n));
  return true;
}

int openat2_in_root(int root_fd, std::string_view relative, int flags, unsigned mode) {
  std::string path = relative.empty() ? std::string(".") : std::string(relative);
  struct open_how how = {};
  how.flags = static_cast<uint64_t>(flags | O_CLOEXEC);
  how.mode = takes_mode(flags) ? mode : 0;
  how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS;
  for (int attempt = 0;; ++attempt) {
    long fd = ::syscall(SYS_openat2, root_fd, path.c_str(), &how, sizeof how);
    if (fd >= 0) return static_cast<int>(fd);
    // A rename elsewhere in the tree can race with "..": the kernel asks
    // for a retry rather than risk an escape.
    if (errno == EAGAIN && attempt < 8) continue;
    return -1;
  }
}

}  // namespace

int open_in_root_by_walk(int root_fd, std::string_view relative, int flags, unsigned mode) {
  std::deque<std::string> todo = split_components(relative);
  // The directories entered below the root; empty means "at the root".
  std::vector<UniqueFd> entered;
  auto here = [&] { return entered.empty() ? root_fd : entered.back().get(); };
  int links = 0;

  while (!todo.empty()) {
    std::string name = std::move(todo.front());
    todo.pop_front();
    bool last = todo.empty();
    if (name == "..") {
      if (!entered.empty()) entered.pop_back();  // ".." at the root stays there
      continue;
    }
    // The kernel itself handles a final component that must not be
    // followed: O_NOFOLLOW, and O_CREAT | O_EXCL, which never follows.
    bool follow_last = !(flags & O_NOFOLLOW) && !((flags & O_CREAT) && (flags & O_EXCL));
    struct stat st;
    bool is_link = ::fstatat(here(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode);
    if (is_link && (!last || follow_last)) {
      if (++links > kMaxLinks) {
        errno = ELOOP;
        return -1;
      }
      std::string target;
      if (!read_link_at(here(), name, &target)) return -1;
      if (target.empty()) {
        errno = ENOENT;
        return -1;
      }
      if (target.front() == '/') entered.clear();  // absolute targets start at the root
      std::deque<std::string> parts = split_components(target);
      todo.insert(todo.begin(), parts.begin(), parts.end());
      continue;
    }
    if (last) {
      // O_NOFOLLOW here too: if a link replaced the entry since we looked,
      // the open fails instead of following it out of the root.
      int extra = follow_last ? O_NOFOLLOW : 0;
      UniqueFd fd(::openat(here(), name.c_str(), flags | extra | O_CLOEXEC, takes_mode(flags) ? mode : 0));
      bool became_link =
          follow_last &&
          (fd.valid() ? (flags & O_PATH) && ::fstat(fd.get(), &st) == 0 && S_ISLNK(st.st_mode) : errno == ELOOP);
      if (became_link) {
        if (++links > kMaxLinks) {
          errno = ELOOP;
          return -1;
        }
        todo.push_front(std::move(name));  // look again, as a link this time
        continue;
      }
      return fd.release();
    }
    int fd = ::openat(here(), name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return -1;
    entered.emplace_back(fd);
  }
  // The path named a directory reached by "..", a link or nothing at all.
  return ::openat(here(), ".", flags | O_CLOEXEC, takes_mode(flags) ? mode : 0);
}

int open_in_root(int root_fd, std::string_view relative, int flags, unsigned mode) {
  if (!g_openat2_missing.load(std::memory_order_relaxed)) {
    int fd = openat2_in_root(root_fd, relative, flags, mode);
    if (fd >= 0 || errno != ENOSYS) return fd;
    g_openat2_missing.store(true, std::memory_order_relaxed);
  }
  return open_in_root_by_walk(root_fd, relative, flags, mode);
}

bool confined_to_root(const std::string& path, std::string* root, std::string* relative) {
  const Paths* paths = find<Paths>();
  if (paths == nullptr || paths->is_real_root()) return false;
  const std::string& r = paths->root();
  if (path.compare(0, r.size(), r) != 0) return false;
  if (path.size() > r.size() && path[r.size()] != '/') return false;  // "/tmp/rootx" is not below "/tmp/root"
  *root = r;
  size_t rest = path.find_first_not_of('/', r.size());
  *relative = rest == std::string::npos ? std::string() : path.substr(rest);
  return true;
}

namespace {

UniqueFd open_root(const std::string& root) { return UniqueFd(::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)); }

int make_directories_in_root(int root_fd, std::string_view relative, unsigned mode) {
  // Each prefix is opened afresh from the root, so a link met on the way
  // is resolved exactly as a later open of the whole path would.
  std::string prefix;
  std::deque<std::string> parts = split_components(relative);
  for (const std::string& part : parts) {
    std::string parent = prefix;
    prefix = prefix.empty() ? part : prefix + "/" + part;
    UniqueFd dir(open_in_root(root_fd, prefix, O_PATH | O_DIRECTORY));
    if (dir.valid()) continue;
    if (errno != ENOENT) return errno;
    UniqueFd above(open_in_root(root_fd, parent, O_PATH | O_DIRECTORY));
    if (!above.valid()) return errno;
    if (::mkdirat(above.get(), part.c_str(), mode) != 0 && errno != EEXIST) return errno;
    dir.reset(open_in_root(root_fd, prefix, O_PATH | O_DIRECTORY));
    if (!dir.valid()) return errno;
  }
  return 0;
}

int make_directories_plain(const std::string& path, unsigned mode) {
  if (path.empty()) return ENOENT;
  struct stat st;
  if (::stat(path.c_str(), &st) == 0) return S_ISDIR(st.st_mode) ? 0 : ENOTDIR;
  size_t slash = path.find_last_of('/');
  if (slash != std::string::npos && slash > 0) {
    if (int err = make_directories_plain(path.substr(0, slash), mode)) return err;
  }
  if (::mkdir(path.c_str(), mode) == 0) return 0;
  if (errno != EEXIST) return errno;
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode) ? 0 : ENOTDIR;
}

// Splits path into its directory and last component, lexically.
bool split_leaf(std::string_view path, std::string* dir, std::string* leaf) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  size_t slash = path.find_last_of('/');
  std::string_view name = slash == std::string_view::npos ? path : path.substr(slash + 1);
  if (name.empty() || name == "." || name == "..") return false;
  *leaf = std::string(name);
  if (slash == std::string_view::npos)
    *dir = ".";
  else
    *dir = slash == 0 ? std::string("/") : std::string(path.substr(0, slash));
  return true;
}

}  // namespace

int open_confined(const std::string& path, int flags, unsigned mode) {
  std::string root, relative;
  if (!confined_to_root(path, &root, &relative)) return ::open(path.c_str(), flags | O_CLOEXEC, mode);
  UniqueFd root_fd = open_root(root);
  if (!root_fd.valid()) return -1;
  return open_in_root(root_fd.get(), relative, flags, mode);
}

int make_directories_confined(const std::string& path, unsigned mode) {
  std::string root, relative;
  if (!confined_to_root(path, &root, &relative)) return make_directories_plain(path, mode);
  UniqueFd root_fd = open_root(root);
  if (!root_fd.valid()) return errno;
  return make_directories_in_root(root_fd.get(), relative, mode);
}

int open_parent_confined(const std::string& path, bool create_parents, std::string* leaf) {
  std::string root, relative, dir;
  if (!confined_to_root(path, &root, &relative)) {
    if (!split_leaf(path, &dir, leaf)) {
      errno = EINVAL;
      return -1;
    }
    if (create_parents) {
      if (int err = make_directories_plain(dir, 0755)) {
        errno = err;
        return -1;
      }
    }
    return ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  }
  if (!split_leaf(relative, &dir, leaf)) {
    errno = EINVAL;
    return -1;
  }
  UniqueFd root_fd = open_root(root);
  if (!root_fd.valid()) return -1;
  if (create_parents) {
    if (int err = make_directories_in_root(root_fd.get(), dir, 0755)) {
      errno = err;
      return -1;
    }
  }
  return open_in_root(root_fd.get(), dir, O_RDONLY | O_DIRECTORY);
}

}  // namespace platform
