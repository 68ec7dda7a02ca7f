// Opening the files a console may read as system logs, so that a log path
// can never be turned into a way of reading something else. Under a sandbox
// root every path is resolved as if the root were "/": no link, absolute or
// relative, leads out of it. At the real root the last component must not
// be a link, and the file must belong to root or to the log group, so a
// file an ordinary user planted or replaced is not served. Every file is
// opened without blocking (a FIFO in its place must not hang the caller)
// and must be a regular file.
//
// Stateless apart from the installed Paths; safe from any thread. The
// confinement itself is platform/root_fs.h's.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <string>

#include "platform/unique_fd.h"

namespace hubwardend {

// The group that may own system logs besides root.
inline constexpr const char kLogGroup[] = "adm";

struct LogFileOpen {
  enum Outcome {
    kOpened,   // fd is a readable regular file
    kMissing,  // nothing at the path: the next candidate may be tried
    kRefused,  // something is there but it must not be read (see reason)
  };
  Outcome outcome = kMissing;
  platform::UniqueFd fd;
  std::string reason;  // for kRefused
};

// The id of kLogGroup, or (gid_t)-1 when the system has no such group.
gid_t log_group_id();

// True when a file with these attributes may be served as a log at the
// real root: owned by root or by the group log_group.
bool is_trusted_log_owner(const struct stat& st, gid_t log_group);

// Opens absolute_path, as the module names it, under the installed root
// with the rules above (the owner rule only at the real root).
LogFileOpen open_log_file(const std::string& absolute_path, gid_t log_group);

// Opens the directory absolute_path under the installed root, confined to
// it like a log file under a sandbox root. Returns an invalid descriptor when
// it is missing, is not a directory or would lead out of the root.
platform::UniqueFd open_confined_directory(const std::string& absolute_path);

}  // namespace hubwardend
