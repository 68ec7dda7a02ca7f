// The number of users connected now to the server's file, FTP, mail,
// Windows file sharing and streaming services, asked of each service module
// through the host's module manager. Safe from any thread.
#pragma once

#include <cstdint>

#include "plist/value.h"

namespace hubwarden {

// Sums the lengths of the user (or connection) lists that the service
// modules return. services is the service configuration's "services"
// dictionary (client identifier to {"configured": boolean}) and gates every
// service but mail, which is always asked; nullptr gates them all off.
// Returns 0 until the services are ready.
uint64_t get_numConnectedUsers(const plist::Dict* services, plist::Dict* context);

}  // namespace hubwarden
