// How the client reaches the daemon: one HTTP POST of a request body to
// /commands/<module>, over the daemon's local socket or over HTTPS.
//
// A Transport keeps its connection between posts (the log follower posts
// once a second). Not safe for concurrent use; one per thread.
#pragma once

#include <memory>
#include <string>

namespace hubwarden_client {

inline constexpr const char kDefaultSocketPath[] = "/run/hubwarden/hubwardend.sock";
inline constexpr int kDefaultPort = 311;

struct Endpoint {
  // Exactly one of the two is set: a Unix socket path, or a base URL
  // ("https://host:311"; see normalize_url).
  std::string socket_path;
  std::string url;
  // HTTP Basic credentials, sent over HTTPS only.
  std::string user;
  std::string password;
  bool insecure = false;  // accept any certificate (the daemon's self-signed one)
  std::string ca_file;    // trust this certificate file instead of the system's
  long timeout_seconds = 60;
};

struct HttpReply {
  long status = 0;
  std::string content_type;
  std::string body;
};

struct PostResult {
  bool ok = false;    // an HTTP answer arrived (any status)
  std::string error;  // why not, when !ok
  HttpReply reply;
};

class Transport {
 public:
  virtual ~Transport() = default;
  // Posts body with content_type to /commands/<module>. Never throws;
  // connection, TLS and timeout failures come back as !ok with a message.
  virtual PostResult post(const std::string& module, const std::string& content_type, const std::string& body) = 0;
};

// A libcurl transport for endpoint. TLS 1.2 or later, no redirects.
std::unique_ptr<Transport> make_curl_transport(Endpoint endpoint);

// The URL the user typed made complete: "https://" when no scheme is
// given, port 311 when none is, no trailing "/". Only https is accepted,
// since credentials travel with every request. Returns false with *error
// set for anything else.
bool normalize_url(const std::string& text, std::string* url, std::string* error);

// The module names the daemon can route: letters, digits, "_", "-" and
// ".", but not "." or ".." alone.
bool is_valid_module_name(const std::string& name);

// Where requests go, for messages: "socket PATH" or the URL.
std::string describe(const Endpoint& endpoint);

}  // namespace hubwarden_client
