// A file's identity as a cache key. A replacement by rename gets a new
// inode, and any write in place moves the change time, which nobody can set
// back.
#pragma once

#include <sys/stat.h>
#include <time.h>

namespace platform {

struct FileIdentity {
  dev_t dev = 0;
  ino_t ino = 0;
  off_t size = 0;
  struct timespec mtime {};
  struct timespec ctime {};

  static FileIdentity of(const struct stat& st) { return {st.st_dev, st.st_ino, st.st_size, st.st_mtim, st.st_ctim}; }
  bool operator==(const FileIdentity& o) const {
    return dev == o.dev && ino == o.ino && size == o.size && mtime.tv_sec == o.mtime.tv_sec &&
           mtime.tv_nsec == o.mtime.tv_nsec && ctime.tv_sec == o.ctime.tv_sec && ctime.tv_nsec == o.ctime.tv_nsec;
  }
};

}  // namespace platform
