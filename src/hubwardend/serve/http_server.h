// The daemon's entrances: HTTPS on TCP ports and HTTP on a local Unix
// socket, both handing complete requests to one RequestHandler.
//
// The server owns a small pool of I/O threads; connections cost no thread
// of their own, so thousands of idle clients are cheap. Each connection
// carries at most one request at a time: while its handler has not
// answered, nothing more is read from it, so pipelined requests are
// answered in order. Transport errors are answered here and never reach the
// handler: 400 for unparsable requests or compressed bodies, 413 for a body
// over the limit, 431 for oversized headers, 503 once stop_accepting() has
// been called. Slow or silent peers (including a stalled TLS handshake) are
// closed when the header, body or keep-alive timeout runs out.
//
// Thread-safety: every public method may be called from any thread, but
// the destructor must not run on one of the server's own I/O threads (that
// is, not from inside RequestHandler::handle).
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "hubwardend/serve/http_types.h"

namespace hubwardend::serve {

struct HttpServerOptions {
  // TCP addresses to serve HTTPS on: "0.0.0.0:311", "[::]:311",
  // "127.0.0.1:0" (any free port). Empty: no HTTPS.
  std::vector<std::string> listen;
  // Real file-system path of the Unix socket; "" for none.
  std::string socket_path;
  // Group the socket file is given; its mode is always 0660.
  std::optional<gid_t> socket_group;
  // PEM files; required when listen is not empty.
  std::string certificate_file, key_file;
  size_t max_body_bytes = 8u << 20;     // larger bodies: 413
  size_t max_header_bytes = 16u << 10;  // larger headers: 431
  size_t io_threads = 2;
  size_t max_connections = 4096;  // beyond: accepted and closed at once
  // A request's headers (and, on a new connection, the TLS handshake) must
  // arrive within this.
  std::chrono::seconds header_timeout{10};
  // The body, once the headers are in, and the writing of a response.
  std::chrono::seconds body_timeout{30};
  // Idle time allowed between requests on a kept-alive connection.
  std::chrono::seconds keep_alive_timeout{60};
};

// The server's shared state; private to the implementation.
struct HttpServerCore;

class HttpServer {
 public:
  // Binds every address and the socket, loads the certificate, and starts
  // serving on io_threads threads. handler must outlive the server. Returns
  // null with a message naming the failing address, file or setting in
  // *error (when error is given); nothing is left bound then.
  static std::unique_ptr<HttpServer> start(const HttpServerOptions& options, RequestHandler* handler,
                                           std::string* error);

  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // Closes every connection, waits for the I/O threads and removes the
  // socket file. Responses the handler sends afterwards are dropped.
  ~HttpServer();

  // The bound TCP ports, in the order of options.listen (so a ":0" address
  // can be looked up).
  std::vector<uint16_t> tcp_ports() const;

  // Closes the listeners. Requests already handed to the handler are still
  // answered (and their connections then closed); any new request on an
  // open connection gets 503 and the connection is closed. Idempotent.
  void stop_accepting();

  // Waits until no request is with the handler or being answered, or until
  // deadline. True when nothing is in flight.
  bool drain(std::chrono::steady_clock::time_point deadline);

  // Connections currently open on all entrances.
  size_t open_connections() const;

 private:
  explicit HttpServer(std::shared_ptr<HttpServerCore> core);
  std::shared_ptr<HttpServerCore> core_;
};

}  // namespace hubwardend::serve
