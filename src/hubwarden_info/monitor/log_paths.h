// The system log table and the small whole-file reader.
#pragma once

#include <cstddef>
#include <memory>

namespace hubwarden {

// Reads the whole file at path (a real path, already resolved). Returns a
// zero-filled buffer strictly larger than the contents (so the byte after
// them is 0) and sets *length, or nullptr with *length 0 when the file is
// empty or unreadable.
std::unique_ptr<char[]> do_read_file(const char* path, size_t* length);

}  // namespace hubwarden
