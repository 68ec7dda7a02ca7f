// The common last step of every command: print the answer in the chosen
// form and decide the exit status. Not thread-safe (writes to io's streams).
#pragma once

#include <functional>
#include <string>

#include "hubwarden_client/client_io.h"
#include "hubwarden_client/session.h"
#include "hubwarden_client/verbs.h"

namespace hubwarden_client {

using Renderer = std::function<View(const plist::Dict& reply)>;

// A failed answer is reported on stderr (kExitTransport); no reply, or a
// reply holding "error", is reported on stderr as "COMMAND: ..."
// (kExitErrorReply); otherwise the reply is printed raw (--json, --xml) or
// through render, whose View decides the status.
int report(const Answer& answer, const std::string& command, OutputMode mode, const Renderer& render, ClientIo& io);

// The reply as --json (indented) or --xml print it.
std::string raw_text(const plist::Dict& reply, OutputMode mode);

}  // namespace hubwarden_client
