// Reading, setting aside and atomically replacing the context file.
#include "hubwardend/context_store.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/file_util.h"
#include "plist/codec.h"

namespace hubwardend {
namespace {

// The first of path.corrupt, path.corrupt.2, ... that does not exist, so
// that an earlier set-aside file is never replaced.
std::string free_corrupt_name(const std::string& path) {
  std::string candidate = path + ".corrupt";
  for (int n = 2; n < 1000; ++n) {
    struct stat st;
    if (lstat(candidate.c_str(), &st) != 0 && errno == ENOENT) return candidate;
    candidate = path + ".corrupt." + std::to_string(n);
  }
  return path + ".corrupt";
}

}  // namespace

LoadedContext load_context(const std::string& path) {
  LoadedContext loaded;
  struct stat st;
  if (stat(path.c_str(), &st) != 0) {
    if (errno == ENOENT) return loaded;  // kAbsent
    loaded.status = LoadedContext::Status::kUnreadable;
    loaded.message = strerror(errno);
    return loaded;
  }
  if (!S_ISREG(st.st_mode)) {
    loaded.status = LoadedContext::Status::kUnreadable;
    loaded.message = "not a regular file";
    return loaded;
  }
  errno = 0;
  std::optional<std::string> text = platform::read_file(path);
  if (!text) {
    loaded.status = LoadedContext::Status::kUnreadable;
    loaded.message = errno ? strerror(errno) : "cannot be read";
    return loaded;
  }
  plist::Parsed parsed = plist::parse_xml(*text);
  if (parsed.ok()) {
    if (plist::Dict* dict = parsed.value.as_dict()) {
      loaded.status = LoadedContext::Status::kLoaded;
      loaded.context = std::move(*dict);
      return loaded;
    }
    loaded.message = "the property list is not a dictionary";
  } else {
    loaded.message = parsed.error;
  }
  std::string aside = free_corrupt_name(path);
  if (rename(path.c_str(), aside.c_str()) != 0) {
    // Starting empty would overwrite the only copy on the next store.
    loaded.status = LoadedContext::Status::kUnreadable;
    loaded.message += std::string("; cannot move it aside: ") + strerror(errno);
    return loaded;
  }
  loaded.status = LoadedContext::Status::kCorrupt;
  loaded.moved_to = aside;
  return loaded;
}

bool store_context(const std::string& path, const plist::Dict& context) {
  return platform::write_file_atomically(path, plist::write_xml(plist::Value(context)), 0600);
}

}  // namespace hubwardend
