// Opening files below a sandbox root without ever leaving it.
//
// With a sandbox root installed (platform::Paths other than "/"), every path
// the module uses is the root's directory followed by an absolute path. A
// plain open() of such a string follows whatever links it meets, so a link
// inside the sandbox ("var/log/secure.log -> ../../../../etc/shadow", or a
// whole directory linked elsewhere) would reach the machine's own files.
// These functions resolve the part below the root as if the root were "/":
// ".." at the root stays at the root, and a link's absolute target starts
// again at the root. The kernel does this for us with openat2() and
// RESOLVE_IN_ROOT; where openat2 is missing, a component-by-component walk
// with O_NOFOLLOW does the same.
//
// Paths outside the sandbox root, and every path when no sandbox root is
// installed (the real root, or no Paths at all in some unit tests), are
// opened as open(2) would open them.
//
// Every function is safe to call from any thread; descriptors are always
// opened close-on-exec.
#pragma once

#include <string>
#include <string_view>

namespace platform {

// When path lies below the installed sandbox root, sets *root to the root
// directory and *relative to the rest of path (without leading '/') and
// returns true. Returns false for the real root, with no Paths installed,
// or for a path outside the root.
bool confined_to_root(const std::string& path, std::string* root, std::string* relative);

// open(2) for path, confined to the sandbox root when path lies below it.
// Returns a descriptor the caller closes, or -1 with errno set (ENOENT,
// EACCES, ELOOP for too many links or a final link under O_NOFOLLOW, ...).
// O_NOFOLLOW applies to the last component as usual.
int open_confined(const std::string& path, int flags, unsigned mode = 0);

// Opens the directory that holds path (O_RDONLY | O_DIRECTORY, so it can be
// read and fsync'd) and sets *leaf to path's last component, for the *at
// calls that act on the entry itself (renameat, unlinkat, symlinkat,
// readlinkat, fstatat with AT_SYMLINK_NOFOLLOW). The directory is resolved
// confined like open_confined. create_parents makes missing directories
// (mode 0755) first. Returns the descriptor, or -1 with errno set; EINVAL
// when path has no last component ("/", "", "dir/..").
int open_parent_confined(const std::string& path, bool create_parents, std::string* leaf);

// Creates path and its missing parents, confined like open_confined.
// Returns 0 when path is a directory afterwards, else an errno value
// (ENOTDIR when something else is in the way).
int make_directories_confined(const std::string& path, unsigned mode);

// The primitives the functions above are built on: open relative below the
// directory root_fd as if root_fd were "/". open_in_root uses openat2 when
// the kernel has it and the walk otherwise; open_in_root_by_walk is always
// the walk, exposed so that both can be checked to agree. Same results as
// open_confined.
int open_in_root(int root_fd, std::string_view relative, int flags, unsigned mode = 0);
int open_in_root_by_walk(int root_fd, std::string_view relative, int flags, unsigned mode = 0);

}  // namespace platform
