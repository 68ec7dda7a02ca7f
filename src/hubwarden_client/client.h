// The hubwarden program as a function: parses the command line, sends the
// request the command stands for and prints the answer.
//
//   hubwarden [--socket PATH | --url URL [--user NAME]] [--json|--xml] COMMAND [ARGS]
//
// Where requests go: --socket or --url, else HUBWARDEN_URL, else
// HUBWARDEN_SOCKET, else the daemon's default socket. Over HTTPS the
// password comes from HUBWARDEN_PASSWORD or a prompt on the terminal,
// never from the command line. Not thread-safe (uses io's streams).
#pragma once

#include <string>
#include <vector>

#include "hubwarden_client/client_io.h"

namespace hubwarden_client {

// arguments: the command line without the program name. Returns the exit
// status (client_io.h); never throws.
int run_client(const std::vector<std::string>& arguments, ClientIo& io);

}  // namespace hubwarden_client
