// What the daemon's entrances hand to the request handler and what they
// send back. The HTTP server fills an HttpRequest only once the whole
// request has arrived within the limits; errors of the transport itself
// (unparsable HTTP, a body over the limit, a compressed body, a request
// while stopping) are answered by the server and never reach the handler.
#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace hubwardend::serve {

enum class Entrance {
  kUnixSocket,  // the local socket: the peer's credentials name the user
  kHttps,       // the network port: HTTP Basic authentication
};

struct HttpRequest {
  Entrance entrance = Entrance::kHttps;
  std::string method;         // "POST", "GET", ...
  std::string target;         // as sent: "/commands/hubwarden_info", "/metrics"
  std::string content_type;   // the Content-Type header, "" when absent
  std::string accept;         // the Accept header, "" when absent
  std::string authorization;  // the Authorization header, "" when absent
  // The web console's headers, each "" when absent: its session cookie
  // travels in Cookie, the session's anti-forgery token in X-CSRF-Token;
  // Origin tells a page of another site apart; If-None-Match revalidates
  // a cached file.
  std::string cookie;
  std::string csrf_token;
  std::string origin;
  std::string if_none_match;
  std::string body;           // the whole body, already de-chunked
  std::string peer_address;   // numeric address of an HTTPS peer; "" on the socket
  std::optional<uid_t> peer_uid;  // SO_PEERCRED of a socket peer
  std::optional<pid_t> peer_pid;
};

struct HttpResponse {
  int status = 200;
  std::string content_type;  // ignored for 204
  std::string body;
  // Further headers, such as WWW-Authenticate or Retry-After.
  std::vector<std::pair<std::string, std::string>> headers;
};

// Sends the response; called exactly once per request, from any thread.
using Respond = std::function<void(HttpResponse)>;

// Decides what each request gets. Implementations are called from the
// server's I/O threads and must not block them: slow work goes to a worker
// and respond is called when it is done.
class RequestHandler {
 public:
  virtual ~RequestHandler() = default;
  virtual void handle(HttpRequest request, Respond respond) = 0;
};

}  // namespace hubwardend::serve
