// The file server's run state as the switches see it, and its recycling.
// Both talk to the server over its control port (one request each); safe
// from any thread, each call using a port of its own.
#pragma once

#include <cstdint>

#include "hubwarden_info/switches/filerctl/filer_port.h"

namespace hubwarden {

// Connects to the file server's control port, leaves it in *port (a false
// port when nothing listens; port may be null) and returns the state word
// of its state record: platform::kFilerRunning (2) when the server runs, 0 when there
// is no server or the record cannot be read.
uint32_t get_filer_state(FilerPort* port);

// Asks a running file server to reload its configuration; a server in any
// other state, or none, is left alone. The outcome is not reported: a
// reload that did not happen leaves the server as it was.
void recycle_filer();

}  // namespace hubwarden
