// The monitor's main loop: binds the event port, loads the rules, and
// turns events into mail until asked to stop.
//
// Signals: SIGTERM and SIGINT end the loop (exit status 0, the socket
// removed, queued mail given a few seconds); SIGHUP reloads the rules,
// keeping the throttle so a reload does not repeat mail already sent.
// The configuration is read at start only.
#pragma once

#include "sentryd/config.h"

namespace sentryd {

// Runs until SIGTERM or SIGINT. Returns the process exit status: 0 after a
// stop by signal, 1 when the event port cannot be bound. Without
// options.foreground it detaches (daemon(3)) once the port is bound.
int run_monitor(const Options& options);

}  // namespace sentryd
