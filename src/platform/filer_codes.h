// The vocabulary both ends of the file server's control exchange share:
// four-character codes and the state record. Constants only; safe
// everywhere.
#pragma once

#include <cstdint>

namespace platform {

// A four-character code: its first character is the most significant byte.
constexpr uint32_t filer_code(const char (&text)[5]) {
  return uint32_t(uint8_t(text[0])) << 24 | uint32_t(uint8_t(text[1])) << 16 | uint32_t(uint8_t(text[2])) << 8 |
         uint32_t(uint8_t(text[3]));
}

// The server attribute holding the state record.
constexpr uint32_t kFilerStateAttribute = filer_code("stax");

// Server commands.
constexpr uint32_t kFilerRecycleCommand = filer_code("sprf");
constexpr uint32_t kFilerDisconnectCommand = filer_code("dses");
constexpr uint32_t kFilerCancelTimerCommand = filer_code("ctim");
constexpr uint32_t kFilerMessageCommand = filer_code("smes");
constexpr uint32_t kFilerShutdownCommand = filer_code("shut");
constexpr uint32_t kFilerEventsCode = filer_code("rfev");

// The state record: 24 bytes, the state word at byte 4 (kFilerRunning when
// the server runs). The server documents the other words.
constexpr uint32_t kFilerStateRecordBytes = 24;
constexpr uint32_t kFilerRunning = 2;

}  // namespace platform
