// Reading and checking the daemon's keys of the host configuration.
#include "hubwardend/serve/daemon_config.h"

#include <arpa/inet.h>
#include <sys/un.h>

#include <array>
#include <cmath>
#include <functional>

namespace hubwardend::serve {
namespace {

// Keys of the host's own tables, read elsewhere.
constexpr std::array<std::string_view, 6> kHostKeys = {"jobs",  "serviceModules",    "logs",
                                                       "paths", "meteredInterfaces", "tools"};

// An idle period longer than a day is surely a slip (milliseconds typed as
// seconds, say); a body limit over 1 GiB would let one client take the
// daemon's memory.
constexpr double kMaxIdlePeriodSeconds = 24 * 60 * 60;
constexpr uint64_t kMaxBodyLimit = uint64_t{1} << 30;

std::optional<uint16_t> parse_port(std::string_view text) {
  if (text.empty() || text.size() > 5) return std::nullopt;
  uint32_t port = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    port = port * 10 + static_cast<uint32_t>(c - '0');
  }
  if (port > 65535) return std::nullopt;
  return static_cast<uint16_t>(port);
}

std::string fail(std::string_view key, std::string_view must) {
  return "host configuration key \"" + std::string(key) + "\" " + std::string(must);
}

bool is_integer(const plist::Value& v) { return v.type() == plist::Type::Integer || v.type() == plist::Type::Unsigned; }

bool is_plain_number(const plist::Value& v) { return is_integer(v) || v.type() == plist::Type::Real; }

// Readers for one key each: true when the value was usable (and stored),
// false with *error set otherwise.
using KeyReader = std::function<bool(const plist::Value&, DaemonConfig*, std::string* error)>;

bool read_listen(const plist::Value& value, DaemonConfig* config, std::string* error) {
  constexpr std::string_view kKey = "listen";
  std::vector<const plist::Value*> items;
  if (value.is_string()) {
    items.push_back(&value);
  } else if (const plist::Array* array = value.as_array()) {
    for (const plist::Value& item : *array) items.push_back(&item);
  } else {
    *error = fail(kKey, "must be an \"address:port\" string or an array of them");
    return false;
  }
  std::vector<ListenAddress> listen;
  for (const plist::Value* item : items) {
    const std::string* text = item->as_string();
    if (text == nullptr) {
      *error = fail(kKey, "must hold only \"address:port\" strings");
      return false;
    }
    std::optional<ListenAddress> address = parse_listen_address(*text);
    if (!address) {
      *error = fail(kKey, "has \"" + *text + "\", which is not a numeric \"address:port\" or \"[address]:port\"");
      return false;
    }
    for (const ListenAddress& seen : listen) {
      if (seen == *address) {
        *error = fail(kKey, "lists \"" + *text + "\" twice");
        return false;
      }
    }
    listen.push_back(*address);
  }
  config->listen = std::move(listen);
  return true;
}

KeyReader absolute_path(std::string_view key, std::string DaemonConfig::*field, size_t max_length) {
  return [key, field, max_length](const plist::Value& value, DaemonConfig* config, std::string* error) {
    const std::string* path = value.as_string();
    if (path == nullptr || path->empty() || path->front() != '/' || path->find('\0') != std::string::npos) {
      *error = fail(key, "must be an absolute path");
      return false;
    }
    if (path->size() > max_length) {
      *error = fail(key, "is longer than " + std::to_string(max_length) + " bytes");
      return false;
    }
    config->*field = *path;
    return true;
  };
}

bool read_idle_period(const plist::Value& value, DaemonConfig* config, std::string* error) {
  std::optional<double> seconds = is_plain_number(value) ? value.to_double() : std::nullopt;
  if (!seconds || !std::isfinite(*seconds) || *seconds <= 0 || *seconds > kMaxIdlePeriodSeconds) {
    *error = fail("idlePeriod", "must be a number of seconds above 0 and at most 86400");
    return false;
  }
  // Whole milliseconds, and never 0: a tiny period still means "soon".
  auto ms = static_cast<int64_t>(std::llround(*seconds * 1000));
  config->idle_period = std::chrono::milliseconds(std::max<int64_t>(ms, 1));
  return true;
}

bool read_pam_service(const plist::Value& value, DaemonConfig* config, std::string* error) {
  // The name is a file name under /etc/pam.d.
  const std::string* name = value.as_string();
  if (name == nullptr || name->empty() || *name == "." || *name == ".." ||
      name->find_first_of(std::string_view("/\0", 2)) != std::string::npos) {
    *error = fail("pamService", "must be a PAM service name (a file name in /etc/pam.d)");
    return false;
  }
  config->pam_service = *name;
  return true;
}

bool read_max_body(const plist::Value& value, DaemonConfig* config, std::string* error) {
  std::optional<uint64_t> bytes = is_integer(value) ? value.to_uint64() : std::nullopt;
  if (!bytes || *bytes == 0 || *bytes > kMaxBodyLimit) {
    *error = fail("maxBodyBytes", "must be a whole number of bytes above 0 and at most 1073741824");
    return false;
  }
  config->max_body_bytes = *bytes;
  return true;
}

bool read_metrics_auth(const plist::Value& value, DaemonConfig* config, std::string* error) {
  const bool* need = value.as_bool();
  if (need == nullptr) {
    *error = fail("metricsNeedAuthentication", "must be a boolean");
    return false;
  }
  config->metrics_need_authentication = *need;
  return true;
}

const std::vector<std::pair<std::string_view, KeyReader>>& daemon_keys() {
  static const auto* keys = new std::vector<std::pair<std::string_view, KeyReader>>{
      {"listen", read_listen},
      {"socket", absolute_path("socket", &DaemonConfig::socket_path, sizeof(sockaddr_un::sun_path) - 1)},
      {"idlePeriod", read_idle_period},
      {"tlsCertificate", absolute_path("tlsCertificate", &DaemonConfig::tls_certificate, 4096)},
      {"tlsKey", absolute_path("tlsKey", &DaemonConfig::tls_key, 4096)},
      {"pamService", read_pam_service},
      {"maxBodyBytes", read_max_body},
      {"metricsNeedAuthentication", read_metrics_auth},
  };
  return *keys;
}

}  // namespace

std::string ListenAddress::text() const {
  std::string port_text = std::to_string(port);
  return family == Family::kIPv6 ? "[" + address + "]:" + port_text : address + ":" + port_text;
}

std::optional<ListenAddress> parse_listen_address(std::string_view text) {
  ListenAddress result;
  std::string_view address;
  std::string_view port;
  if (text.starts_with('[')) {
    size_t close = text.find(']');
    if (close == std::string_view::npos || close + 1 >= text.size() || text[close + 1] != ':') return std::nullopt;
    address = text.substr(1, close - 1);
    port = text.substr(close + 2);
    result.family = ListenAddress::Family::kIPv6;
  } else {
    size_t colon = text.rfind(':');
    if (colon == std::string_view::npos) return std::nullopt;
    address = text.substr(0, colon);
    port = text.substr(colon + 1);
  }
  std::optional<uint16_t> number = parse_port(port);
  if (!number) return std::nullopt;
  // inet_pton alone decides what a numeric address is: no host names, no
  // zone suffixes, no abbreviated IPv4 forms.
  std::string copy(address);
  unsigned char buf[sizeof(struct in6_addr)];
  int family = result.family == ListenAddress::Family::kIPv6 ? AF_INET6 : AF_INET;
  if (copy.empty() || ::inet_pton(family, copy.c_str(), buf) != 1) return std::nullopt;
  result.address = std::move(copy);
  result.port = *number;
  return result;
}

std::optional<DaemonConfig> read_daemon_config(const plist::Dict& host_config, std::string* error,
                                               std::vector<std::string>* warnings) {
  error->clear();
  DaemonConfig config;
  for (const auto& [key, value] : host_config) {
    bool known = false;
    for (const auto& [name, read] : daemon_keys()) {
      if (key != name) continue;
      known = true;
      if (!read(value, &config, error)) return std::nullopt;
      break;
    }
    for (std::string_view host_key : kHostKeys) known = known || key == host_key;
    if (!known) warnings->push_back("unknown host configuration key \"" + key + "\" ignored");
  }
  return config;
}

}  // namespace hubwardend::serve
