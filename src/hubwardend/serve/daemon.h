// The long-running host: `hubwardend serve [--root DIR] [--config FILE]`.
//
// One process loads the module once and keeps it: the main thread runs the
// event loop (idle timer, signals, the module's run-loop services), the
// entrances (HTTPS and the local socket) run on their own I/O threads, and
// module calls run on bounded worker pools. SIGTERM or SIGINT stops
// accepting, lets the calls in flight finish, stores the context and exits
// 0 within five seconds; SIGHUP reloads the host configuration.
//
// Exit status: 0 after a clean stop; 1 when the daemon could not start (the
// reason on standard error and in the log); 2 for unusable arguments or a
// configuration that names a key with a value of the wrong type.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace hubwardend {

// The module context of the long-running host, under the root.
inline constexpr const char kDaemonContextPath[] = "/var/db/hubwarden/context.plist";

// args[0] is the program, args[1] "serve".
int run_serve(const std::vector<std::string>& args, std::ostream& err);

}  // namespace hubwardend
