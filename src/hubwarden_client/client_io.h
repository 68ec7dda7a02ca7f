// What the client takes from the world, gathered in one place so that the
// whole program runs in tests against canned answers: the environment,
// standard input and output, the terminal for the password, the transport
// and the clock for following logs. system_io() (terminal.h) gives the
// real ones.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <ostream>
#include <string>

#include "hubwarden_client/transport.h"

namespace hubwarden_client {

// The program's exit statuses.
enum ExitStatus : int {
  kExitOk = 0,
  kExitErrorReply = 1,  // the daemon answered with "error", no reply, or a failure it reported
  kExitUsage = 2,       // bad arguments; nothing was sent
  kExitTransport = 3,   // the request did not get through (connection, TLS, HTTP status)
};

enum class OutputMode { kTable, kJson, kXml };

struct ClientIo {
  // The value of an environment variable, nullopt when unset.
  std::function<std::optional<std::string>(const std::string& name)> env;
  // All of standard input; nullopt when it cannot be read.
  std::function<std::optional<std::string>()> read_stdin;
  // Asks on the terminal without echo; nullopt when there is no terminal.
  std::function<std::optional<std::string>(const std::string& prompt)> read_password;
  // A transport for the endpoint.
  std::function<std::unique_ptr<Transport>(const Endpoint&)> connect;
  // Waits between log polls; false ends the follow (tests stop it so).
  std::function<bool(int milliseconds)> pause;
  // The caller's own login name, the daemon's name for it on the socket.
  std::function<std::string()> local_user;
  std::ostream* out = nullptr;
  std::ostream* err = nullptr;
};

}  // namespace hubwarden_client
