// The daemon's own keys in the host configuration: where it listens, where
// its certificate lives, how often idle passes run, and the limits of its
// entrances. They sit in the same file as the host's tables ("jobs",
// "paths", ...), so keys of those tables are known here too; any other key
// is reported as a warning and ignored, while a known key with a value of
// the wrong type or out of range stops the start.
//
// Paths are as configured, absolute on the machine; resolving them under a
// sandbox root is the caller's business. Pure functions: safe from any
// thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "plist/value.h"

namespace hubwardend::serve {

// One numeric address and port to listen on.
struct ListenAddress {
  enum class Family { kIPv4, kIPv6 };
  Family family = Family::kIPv4;
  std::string address;  // numeric, without brackets: "0.0.0.0", "::1"
  uint16_t port = 0;    // 0 lets the system choose (tests)

  // "0.0.0.0:311" or "[::1]:311".
  std::string text() const;
  bool operator==(const ListenAddress&) const = default;
};

struct DaemonConfig {
  // Empty when the configuration asks for no network entrance at all.
  std::vector<ListenAddress> listen = {{ListenAddress::Family::kIPv4, "0.0.0.0", 311},
                                       {ListenAddress::Family::kIPv6, "::", 311}};
  std::string socket_path = "/run/hubwarden/hubwardend.sock";
  std::chrono::milliseconds idle_period{10000};
  std::string tls_certificate = "/etc/hubwarden/tls/hubwardend.crt";
  std::string tls_key = "/etc/hubwarden/tls/hubwardend.key";
  std::string pam_service = "hubwardend";
  uint64_t max_body_bytes = 8u << 20;
  bool metrics_need_authentication = true;

  bool operator==(const DaemonConfig&) const = default;
};

// Parses "a.b.c.d:port" or "[v6 address]:port", numbers only (no host
// names: the daemon resolves nothing to decide where it listens), port
// 0-65535 in decimal. Returns nullopt for anything else.
std::optional<ListenAddress> parse_listen_address(std::string_view text);

// The daemon's settings from a host configuration dictionary, defaults for
// absent keys. Returns nullopt with *error naming the key and what it must
// hold when a value is unusable. Each key the host does not know adds one
// line to *warnings.
std::optional<DaemonConfig> read_daemon_config(const plist::Dict& host_config, std::string* error,
                                               std::vector<std::string>* warnings);

}  // namespace hubwardend::serve
