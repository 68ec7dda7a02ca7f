// One conversation with a daemon module: sends request dictionaries and
// turns what comes back (a reply, no reply, an HTTP error, a failed
// connection) into one answer with a message a person can act on.
// Not safe for concurrent use, like the transport under it.
#pragma once

#include <string>

#include "hubwarden_client/transport.h"
#include "plist/value.h"

namespace hubwarden_client {

struct Answer {
  enum class Kind {
    kReply,    // reply holds the module's dictionary (which may carry "error")
    kNoReply,  // the module answered nothing (HTTP 204)
    kFailed,   // the request did not get through; message says why
  };
  Kind kind = Kind::kFailed;
  plist::Dict reply;
  std::string message;
};

class Session {
 public:
  // where: the endpoint as described in messages; user: the name the
  // daemon knows the caller by, for "not allowed for NAME".
  Session(Transport& transport, std::string where, std::string module, std::string user);

  // Sends request as an XML property list. Never throws.
  Answer send(const plist::Dict& request);

 private:
  Transport& transport_;
  const std::string where_;
  const std::string module_;
  const std::string user_;
};

// The message for an HTTP status other than 200 and 204 ("authentication
// failed" for 401, "not allowed for NAME" for 403, ...); body is the
// daemon's short text, added when it says more.
std::string describe_http_status(long status, const std::string& body, const std::string& module,
                                 const std::string& user);

}  // namespace hubwarden_client
