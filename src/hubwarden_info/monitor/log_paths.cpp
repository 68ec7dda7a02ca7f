// The fixed table of system logs a console may view, and do_read_file.
#include "monitor/log_paths.h"

#include <cstdio>
#include <cstring>

#include "request/operations.h"

namespace hubwarden {

ErrorName get_log_paths(std::optional<Dict>& paths) {
  Dict table;
  table.set("systemLog", "/var/log/system.log");
  table.set("kernelLog", "/var/log/kernel.log");
  table.set("softwareUpdateLog", "/Library/Logs/Software Update.log");
  table.set("secureLog", "/var/log/secure.log");
  paths = std::move(table);
  return nullptr;
}

std::unique_ptr<char[]> do_read_file(const char* path, size_t* length) {
  *length = 0;
  FILE* f = std::fopen(path, "rb");
  if (!f) return nullptr;
  // Grows by 100 bytes and re-reads from the start each pass: meant for
  // small configuration files only. A file whose size is a multiple of 100
  // is only seen to end on the pass after, so the buffer always has a
  // terminating zero byte beyond the contents.
  for (size_t size = 100;; size += 100) {
    std::unique_ptr<char[]> buffer(new (std::nothrow) char[size]);
    if (!buffer) break;
    std::memset(buffer.get(), 0, size);
    std::rewind(f);
    size_t got = std::fread(buffer.get(), 1, size, f);
    if (std::ferror(f)) break;
    if (std::feof(f)) {
      std::fclose(f);
      if (got == 0) return nullptr;
      *length = got;
      return buffer;
    }
  }
  std::fclose(f);
  return nullptr;
}

}  // namespace hubwarden
