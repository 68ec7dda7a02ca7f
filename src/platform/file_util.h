// Whole-file reads and atomic whole-file writes. Files that other programs
// read are replaced in one step (temporary file in the same directory,
// fsync, rename), so a reader sees either the old or the new contents and a
// failed write leaves the old file intact. Safe from any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace platform {

// The whole file, or nullopt when it cannot be opened or read.
std::optional<std::string> read_file(const std::string& path);

// Replaces path with contents atomically, creating missing parent
// directories. Returns false (and leaves any old file intact) on failure.
bool write_file_atomically(const std::string& path, std::string_view contents, unsigned mode = 0644);

// Creates path and its missing parents; true when it exists afterwards.
bool make_directories(const std::string& path, unsigned mode = 0755);

bool file_exists(const std::string& path);

}  // namespace platform
