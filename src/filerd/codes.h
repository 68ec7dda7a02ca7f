// The vocabulary of the file server's control service: four-character
// codes, the statuses the daemon answers with, and the state record.
// Constants only; safe everywhere.
#pragma once

#include <cstdint>
#include <string>

#include "platform/filer_codes.h"

namespace filerd {

// Printable form of a code for log lines ("stax", or hex when unprintable).
std::string fourcc_text(uint32_t code);

// Iterator kinds and the attributes an iterator answers (values are text,
// without a terminating NUL).
constexpr uint32_t kIterSessions = platform::filer_code("sess");
constexpr uint32_t kIterShares = platform::filer_code("shar");
constexpr uint32_t kIterName = platform::filer_code("name");       // session: user; share: share name
constexpr uint32_t kIterUser = platform::filer_code("user");       // session only
constexpr uint32_t kIterGroup = platform::filer_code("grup");      // session only
constexpr uint32_t kIterAddress = platform::filer_code("addr");    // remote machine
constexpr uint32_t kIterSessionId = platform::filer_code("sesn");  // decimal
constexpr uint32_t kIterProcess = platform::filer_code("proc");    // serving smbd process id, decimal
constexpr uint32_t kIterDialect = platform::filer_code("dial");    // session only, e.g. "SMB3_11"
constexpr uint32_t kIterSince = platform::filer_code("date");      // share only, when connected

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
constexpr uint32_t kStateRecordVersion = 1;
constexpr uint32_t kStateStopped = 0;

}  // namespace filerd
