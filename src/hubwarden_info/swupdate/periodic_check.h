// The periodic update check: a scan shortly after every daemon start and
// once per period of idle calls, and an announcement of every available,
// unignored update to the event monitor a few calls later, when the
// administrator's software update rule file exists.
#pragma once

#include "notify/event_port_session.h"
#include "request/operations.h"

namespace hubwarden {

// Runs the check for idle call number tick, posting through port. Does
// nothing unless the rule file exists and tick falls on a scan or an
// announcement position of the period.
void periodic_swupdate_check(Dict* context, int tick, EventPortSession& port);

}  // namespace hubwarden
