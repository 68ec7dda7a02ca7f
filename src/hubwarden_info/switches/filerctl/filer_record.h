// Builds the argument records of the file server's commands. Words are
// 32-bit and in this machine's byte order, because the server reads the
// record in place as native words (it runs on the same machine); texts are
// copied with their terminating NUL. Not thread-safe; one record per use.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>

namespace hubwarden {

class FilerRecord {
 public:
  FilerRecord& word(uint32_t value) {
    char bytes[sizeof value];
    std::memcpy(bytes, &value, sizeof value);
    bytes_.append(bytes, sizeof bytes);
    return *this;
  }
  // A null text is written as the empty one.
  FilerRecord& text(const char* value) {
    if (value) bytes_ += value;
    bytes_.push_back('\0');
    return *this;
  }

  const char* data() const { return bytes_.data(); }
  uint32_t size() const { return static_cast<uint32_t>(bytes_.size()); }

 private:
  std::string bytes_;
};

}  // namespace hubwarden
