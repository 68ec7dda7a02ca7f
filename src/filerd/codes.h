// The vocabulary of the file server's control service: four-character
// codes, the statuses the daemon answers with, and the state record.
// Constants only; safe everywhere.
#pragma once

#include <cstdint>
#include <string>

namespace filerd {

// A four-character code: the characters read most significant byte first.
constexpr uint32_t fourcc(const char (&text)[5]) {
  return (uint32_t(uint8_t(text[0])) << 24) | (uint32_t(uint8_t(text[1])) << 16) | (uint32_t(uint8_t(text[2])) << 8) |
         uint32_t(uint8_t(text[3]));
}

// Printable form of a code for log lines ("stax", or hex when unprintable).
std::string fourcc_text(uint32_t code);

// Server attribute.
constexpr uint32_t kAttrState = fourcc("stax");

// Server commands.
constexpr uint32_t kCmdRecycle = fourcc("sprf");
constexpr uint32_t kCmdDisconnect = fourcc("dses");
constexpr uint32_t kCmdCancelTimer = fourcc("ctim");
constexpr uint32_t kCmdSendMessage = fourcc("smes");
constexpr uint32_t kCmdShutdown = fourcc("shut");
constexpr uint32_t kCmdRegisterEvents = fourcc("rfev");

// Iterator kinds and the attributes an iterator answers (values are text,
// without a terminating NUL).
constexpr uint32_t kIterSessions = fourcc("sess");
constexpr uint32_t kIterShares = fourcc("shar");
constexpr uint32_t kIterName = fourcc("name");       // session: user; share: share name
constexpr uint32_t kIterUser = fourcc("user");       // session only
constexpr uint32_t kIterGroup = fourcc("grup");      // session only
constexpr uint32_t kIterAddress = fourcc("addr");    // remote machine
constexpr uint32_t kIterSessionId = fourcc("sesn");  // decimal
constexpr uint32_t kIterProcess = fourcc("proc");    // serving smbd process id, decimal
constexpr uint32_t kIterDialect = fourcc("dial");    // session only, e.g. "SMB3_11"
constexpr uint32_t kIterSince = fourcc("date");      // share only, when connected

// Statuses. The first four are the client's own; the rest are this
// daemon's, outside the range the client uses for its transport.
constexpr int32_t kStatusOk = 0;
constexpr int32_t kStatusBadArgument = -10011;  // bad record, unknown code or iterator
constexpr int32_t kStatusServerGone = -10056;   // not used by the daemon itself
// Samba's tool failed or could not be run (reload, stop).
constexpr int32_t kStatusToolFailed = -10050;
// "smes": SMB2 and later carry no messages to users. Its own code so that
// a caller can tell "cannot" from "you asked wrongly".
constexpr int32_t kStatusNotSupported = -10090;
// An iterator read or advanced past its last item.
constexpr int32_t kStatusEndOfList = -10091;
// Too many iterators open on one connection, or too many event listeners.
constexpr int32_t kStatusTooMany = -10092;

// The "stax" record: six 32-bit words in host byte order (the client runs
// on the same machine and copies the record as it comes).
//   byte 0   record version, 1
//   byte 4   state: 2 running, 0 stopped
//   byte 8   process id of the main smbd, 0 when stopped
//   byte 12  minutes left before a scheduled stop, rounded up; 0 for none
//   byte 16  0 (reserved)
//   byte 20  0 (reserved)
constexpr size_t kStateRecordBytes = 24;
constexpr uint32_t kStateRecordVersion = 1;
constexpr uint32_t kStateRunning = 2;
constexpr uint32_t kStateStopped = 0;

}  // namespace filerd
