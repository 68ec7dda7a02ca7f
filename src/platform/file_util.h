// Whole-file reads and atomic whole-file writes. Files that other programs
// read are replaced in one step (temporary file in the same directory,
// fsync, rename), so a reader sees either the old or the new contents and a
// failed write leaves the old file intact.
//
// Paths below an installed sandbox root are opened and created without
// leaving the root (root_fs.h): a link inside the sandbox cannot lead a read
// or a write to the machine's own files. Safe from any thread.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

// Files read whole are settings, records and small system files; anything
// larger than this is refused rather than loaded.
inline constexpr size_t kDefaultReadLimit = size_t{16} << 20;  // 16 MiB

// Why read_file gave nothing.
enum class ReadError {
  kNone,
  kNotFound,    // no such file (or a missing directory on the way)
  kNotRegular,  // a directory, FIFO, socket or device
  kTooLarge,    // more than the limit
  kUnreadable,  // permissions, I/O errors, a link loop, ...
};

// The whole regular file at path, at most max_bytes long; nullopt otherwise,
// with the reason in *error when error is given. Never blocks on a FIFO or
// device: those are refused without reading.
std::optional<std::string> read_file(const std::string& path, size_t max_bytes = kDefaultReadLimit,
                                     ReadError* error = nullptr);

// Replaces path with contents atomically, creating missing parent
// directories. Temporary files that an earlier writer of the same path left
// behind (it died mid-write) are removed first. Returns false (and leaves
// any old file intact) on failure.
bool write_file_atomically(const std::string& path, std::string_view contents, unsigned mode = 0644);

// Creates path and its missing parents; true when it is a directory
// afterwards.
bool make_directories(const std::string& path, unsigned mode = 0755);

// Whether path names an existing file, following links (within the sandbox
// root for a path below it).
bool file_exists(const std::string& path);

}  // namespace platform
