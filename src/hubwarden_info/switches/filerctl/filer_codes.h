// Status codes and four-character codes of the file server's control
// client. A status is 0 on success, one of the kFiler* codes below, or one
// of the transport's own codes (kFilerTransport*), all negative.
#pragma once

#include <cstdint>

namespace hubwarden {

constexpr int kFilerTruncated = -10001;          // reply larger than the caller's buffer
constexpr int kFilerJobNotEnabled = -10010;      // root caller, file server job not enabled
constexpr int kFilerBadArgument = -10011;        // bad argument, or a caller that is not root
constexpr int kFilerEnableRefused = -10019;      // enable asked by a caller that is not root
constexpr int kFilerJobToolFailed = -10050;      // the job could not be switched at all
constexpr int kFilerServerUnreachable = -10056;  // no server, or it went away

// The transport's own failures, other than a server that is gone.
constexpr int kFilerTransportTimedOut = -10101;  // no whole reply within the limit
constexpr int kFilerTransportBadReply = -10102;  // a reply of the wrong id or shape
constexpr int kFilerTransportIoError = -10103;   // any other socket failure
constexpr int kFilerTransportNoRight = -10104;   // the notification port could not be passed

// A four-character code: its first character is the most significant byte.
constexpr uint32_t filer_code(const char (&text)[5]) {
  return uint32_t(uint8_t(text[0])) << 24 | uint32_t(uint8_t(text[1])) << 16 | uint32_t(uint8_t(text[2])) << 8 |
         uint32_t(uint8_t(text[3]));
}

constexpr uint32_t kFilerStateAttribute = filer_code("stax");
constexpr uint32_t kFilerRecycleCommand = filer_code("sprf");
constexpr uint32_t kFilerDisconnectCommand = filer_code("dses");
constexpr uint32_t kFilerCancelTimerCommand = filer_code("ctim");
constexpr uint32_t kFilerMessageCommand = filer_code("smes");
constexpr uint32_t kFilerShutdownCommand = filer_code("shut");
constexpr uint32_t kFilerEventsCode = filer_code("rfev");

// The state record read with kFilerStateAttribute: 24 bytes, the state word
// at byte 4 (kFilerRunning when the server runs).
constexpr uint32_t kFilerStateRecordBytes = 24;
constexpr uint32_t kFilerRunning = 2;

// The file server's job label.
constexpr const char* kFilerJobLabel = "com.marlo.FilerServer";

}  // namespace hubwarden
