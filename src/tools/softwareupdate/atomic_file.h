// Replacing a file that other programs read, so that a reader sees either
// the old contents or the new ones and never a torn write. Thread-safe.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

namespace softwareupdate {

// Writes contents to a temporary file beside path, flushes it to disk,
// gives it mode and renames it over path. Returns "" on success, else a
// one-line reason naming path; path is then left as it was and no
// temporary file remains.
std::string replace_file_atomically(const std::string& path, std::string_view contents, mode_t mode = 0644);

}  // namespace softwareupdate
