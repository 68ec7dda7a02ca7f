// The real world behind ClientIo: the process environment, standard
// streams, the controlling terminal and libcurl. Call once, from main.
#pragma once

#include <optional>
#include <string>

#include "hubwarden_client/client_io.h"

namespace hubwarden_client {

ClientIo system_io();

// Prints prompt on /dev/tty and reads one line with echo off, restoring the
// terminal afterwards (also when interrupted by a signal that returns).
// nullopt when there is no terminal.
std::optional<std::string> read_password_from_terminal(const std::string& prompt);

}  // namespace hubwarden_client
