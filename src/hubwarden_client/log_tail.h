// The "logs" verb: the last lines of one of the server's logs, then, when
// following, whatever is appended, polled once a second. Works in byte
// offsets counted from the start of the log, which the daemon's tail
// service clamps to the log, so no line is printed twice or skipped between
// the first window and the first poll. Not thread-safe.
#pragma once

#include <cstdint>
#include <string>

#include "hubwarden_client/client_io.h"
#include "hubwarden_client/session.h"

namespace hubwarden_client {

struct LogOptions {
  std::string name = "system";  // "system", "kernel", "secure", or any identifier the daemon lists
  int64_t lines = 20;
  bool follow = false;
  int poll_milliseconds = 1000;
};

// Returns the exit status; in --json and --xml modes each tailFile reply is
// printed raw instead of its text.
int run_logs(Session& session, const LogOptions& options, OutputMode mode, ClientIo& io);

// The last count lines of text (a final line without newline counts); when
// partial_first, the first line is a fragment and never counts.
std::string last_lines(const std::string& text, int64_t count, bool partial_first);

}  // namespace hubwarden_client
