// http_load: drives a running daemon over HTTPS or its Unix socket with many
// keep-alive clients and reports throughput, latency percentiles and errors
// by status. Optionally holds a crowd of idle connections open meanwhile,
// to show what they cost the busy ones.
//
//   http_load --url https://127.0.0.1:8311/commands/hubwarden_info --insecure
//             --user admin --password secret --clients 50 --requests 10000 --idle-connections 1000
//   http_load --socket /run/hubwarden/hubwardend.sock --clients 50 --requests 10000
//
// The run is bounded: it stops after --time-limit seconds whatever happens.
// Exit status 0 when every request got a 2xx answer.
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <latch>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "plist/codec.h"
#include "plist/value.h"

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace ssl = asio::ssl;
using tcp = asio::ip::tcp;
using Clock = std::chrono::steady_clock;

struct Options {
  std::string scheme, host, port, path = "/commands/hubwarden_info";
  std::string socket_path;
  std::string user, password;
  std::string body;
  std::string content_type = "application/xml";
  std::string ca_file;
  bool insecure = false;
  int clients = 50;
  long requests = 10000;
  int idle_connections = 0;
  int time_limit_seconds = 300;
};

void usage_and_exit(const char* problem) {
  std::fprintf(stderr,
               "http_load: %s\n"
               "usage: http_load (--url https://HOST:PORT/PATH | --socket PATH [--path /commands/MODULE])\n"
               "                 [--user U --password P] [--body FILE] [--content-type TYPE]\n"
               "                 [--clients 50] [--requests 10000] [--idle-connections 0]\n"
               "                 [--insecure | --cacert FILE] [--time-limit 300]\n",
               problem);
  std::exit(2);
}

bool parse_url(const std::string& url, Options* options) {
  const std::string prefix = "https://";
  if (url.rfind(prefix, 0) != 0) return false;
  std::string rest = url.substr(prefix.size());
  size_t slash = rest.find('/');
  std::string authority = rest.substr(0, slash);
  if (slash != std::string::npos) options->path = rest.substr(slash);
  size_t colon = authority.rfind(':');
  if (colon == std::string::npos || (authority.front() == '[' && authority.back() == ']')) {
    options->host = authority;
    options->port = "311";
  } else {
    options->host = authority.substr(0, colon);
    options->port = authority.substr(colon + 1);
  }
  if (options->host.size() >= 2 && options->host.front() == '[') {
    options->host = options->host.substr(1, options->host.size() - 2);
  }
  options->scheme = "https";
  return !options->host.empty();
}

Options parse_arguments(int argc, char** argv) {
  Options options;
  auto value = [&](int& i) -> std::string {
    if (i + 1 >= argc) usage_and_exit((std::string(argv[i]) + " needs a value").c_str());
    return argv[++i];
  };
  auto number = [&](int& i) -> long {
    std::string text = value(i);
    char* end = nullptr;
    long n = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || n < 0) usage_and_exit(("not a count: " + text).c_str());
    return n;
  };
  std::string body_file;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--url") {
      if (!parse_url(value(i), &options)) usage_and_exit("--url must look like https://HOST:PORT/PATH");
    } else if (arg == "--socket") {
      options.socket_path = value(i);
    } else if (arg == "--path") {
      options.path = value(i);
    } else if (arg == "--user") {
      options.user = value(i);
    } else if (arg == "--password") {
      options.password = value(i);
    } else if (arg == "--body") {
      body_file = value(i);
    } else if (arg == "--content-type") {
      options.content_type = value(i);
    } else if (arg == "--clients") {
      options.clients = static_cast<int>(number(i));
    } else if (arg == "--requests") {
      options.requests = number(i);
    } else if (arg == "--idle-connections") {
      options.idle_connections = static_cast<int>(number(i));
    } else if (arg == "--insecure") {
      options.insecure = true;
    } else if (arg == "--cacert") {
      options.ca_file = value(i);
    } else if (arg == "--time-limit") {
      options.time_limit_seconds = static_cast<int>(number(i));
    } else {
      usage_and_exit(("unknown argument " + arg).c_str());
    }
  }
  if (options.scheme.empty() == options.socket_path.empty()) usage_and_exit("give either --url or --socket");
  if (options.clients < 1) usage_and_exit("--clients must be at least 1");
  if (options.password.empty()) {
    if (const char* env = std::getenv("HUBWARDEN_PASSWORD")) options.password = env;
  }
  if (!body_file.empty()) {
    std::ifstream in(body_file, std::ios::binary);
    if (!in) usage_and_exit(("cannot read " + body_file).c_str());
    std::ostringstream text;
    text << in.rdbuf();
    options.body = text.str();
  } else {
    options.body = plist::write_xml(plist::Value(plist::Dict{{"command", plist::Value("getState")}}));
  }
  return options;
}

std::string basic_credentials(const std::string& user, const std::string& password) {
  std::string plain = user + ":" + password;
  std::string encoded(4 * ((plain.size() + 2) / 3) + 1, '\0');
  int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(encoded.data()),
                          reinterpret_cast<const unsigned char*>(plain.data()), static_cast<int>(plain.size()));
  encoded.resize(static_cast<size_t>(n));
  return "Basic " + encoded;
}

// What one client thread saw.
struct Tally {
  std::vector<double> latencies_ms;
  std::map<int, long> statuses;
  std::map<std::string, long> transport_errors;
  long reconnects = 0;
};

// One keep-alive connection of either kind, reconnecting when the server
// closes it.
class Connection {
 public:
  Connection(const Options& options, ssl::context* tls) : options_(options), tls_(tls) {}

  bool open(std::string* error) {
    tls_stream_.reset();
    local_.reset();
    buffer_.clear();
    boost::system::error_code ec;
    if (!options_.socket_path.empty()) {
      local_ = std::make_unique<asio::local::stream_protocol::socket>(io_);
      local_->connect(asio::local::stream_protocol::endpoint(options_.socket_path), ec);
    } else {
      tcp::resolver resolver(io_);
      auto endpoints = resolver.resolve(options_.host, options_.port, ec);
      if (!ec) {
        tls_stream_ = std::make_unique<ssl::stream<tcp::socket>>(io_, *tls_);
        asio::connect(tls_stream_->next_layer(), endpoints, ec);
        if (!ec) tls_stream_->next_layer().set_option(tcp::no_delay(true), ec);
        if (!ec) {
          SSL_set_tlsext_host_name(tls_stream_->native_handle(), options_.host.c_str());
          if (!options_.insecure) SSL_set1_host(tls_stream_->native_handle(), options_.host.c_str());
          tls_stream_->handshake(ssl::stream_base::client, ec);
        }
      }
    }
    if (ec) *error = ec.message();
    open_ = !ec;
    return open_;
  }

  // Sends one request and reads its answer: the status, or 0 with *error.
  int exchange(const http::request<http::string_body>& request, bool* keep_alive, std::string* error) {
    boost::system::error_code ec;
    http::response<http::string_body> response;
    if (tls_stream_) {
      http::write(*tls_stream_, request, ec);
      if (!ec) http::read(*tls_stream_, buffer_, response, ec);
    } else {
      http::write(*local_, request, ec);
      if (!ec) http::read(*local_, buffer_, response, ec);
    }
    if (ec) {
      *error = ec.message();
      open_ = false;
      return 0;
    }
    *keep_alive = response.keep_alive();
    if (!*keep_alive) open_ = false;
    return response.result_int();
  }

  bool is_open() const { return open_; }

  // Whether the server still holds the connection (it has not closed it).
  bool still_open() {
    int fd = tls_stream_ ? tls_stream_->next_layer().native_handle() : local_->native_handle();
    char byte;
    long n = ::recv(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    return n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
  }

 private:
  const Options& options_;
  ssl::context* tls_;
  asio::io_context io_;
  std::unique_ptr<ssl::stream<tcp::socket>> tls_stream_;
  std::unique_ptr<asio::local::stream_protocol::socket> local_;
  beast::flat_buffer buffer_;
  bool open_ = false;
};

http::request<http::string_body> make_request(const Options& options) {
  http::request<http::string_body> request(http::verb::post, options.path, 11);
  request.set(http::field::host, options.socket_path.empty() ? options.host : "localhost");
  request.set(http::field::user_agent, "http_load");
  request.set(http::field::content_type, options.content_type);
  request.set(http::field::accept, options.content_type);
  if (!options.user.empty()) request.set(http::field::authorization, basic_credentials(options.user, options.password));
  request.keep_alive(true);
  request.body() = options.body;
  request.prepare_payload();
  return request;
}

double percentile(const std::vector<double>& sorted, double fraction) {
  if (sorted.empty()) return 0;
  size_t index = static_cast<size_t>(fraction * static_cast<double>(sorted.size() - 1) + 0.5);
  return sorted[std::min(index, sorted.size() - 1)];
}

void raise_descriptor_limit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
  }
}

}  // namespace

int main(int argc, char** argv) {
  Options options = parse_arguments(argc, argv);
  raise_descriptor_limit();

  ssl::context tls(ssl::context::tls_client);
  SSL_CTX_set_min_proto_version(tls.native_handle(), TLS1_2_VERSION);
  if (options.insecure) {
    tls.set_verify_mode(ssl::verify_none);
  } else {
    if (options.ca_file.empty()) {
      tls.set_default_verify_paths();
    } else {
      tls.load_verify_file(options.ca_file);
    }
    tls.set_verify_mode(ssl::verify_peer);
  }
  const auto request = make_request(options);

  // Nothing here may run for ever: a server that stops answering ends the
  // run with what was counted so far.
  std::thread([limit = options.time_limit_seconds] {
    std::this_thread::sleep_for(std::chrono::seconds(limit));
    std::fprintf(stderr, "http_load: time limit of %d s reached, giving up\n", limit);
    std::_Exit(3);
  }).detach();

  // The idle crowd: each makes one request (a fresh connection that sends
  // nothing is cut by the server long before a kept-alive one) and then
  // just stays connected.
  std::vector<std::unique_ptr<Connection>> idle(static_cast<size_t>(options.idle_connections));
  std::atomic<long> idle_failures{0};
  {
    std::atomic<size_t> next{0};
    std::vector<std::thread> openers;
    for (int t = 0; t < options.clients; ++t) {
      openers.emplace_back([&] {
        for (size_t i; (i = next++) < idle.size();) {
          auto connection = std::make_unique<Connection>(options, &tls);
          std::string error;
          bool keep_alive = false;
          if (!connection->open(&error) || connection->exchange(request, &keep_alive, &error) / 100 != 2) {
            ++idle_failures;
          }
          idle[i] = std::move(connection);
        }
      });
    }
    for (auto& opener : openers) opener.join();
  }

  // Every client connects (and handshakes) before the clock starts: the
  // figures are for requests on kept-alive connections. Reconnections
  // the server forces later are counted in.
  std::atomic<long> next_request{0};
  std::vector<Tally> tallies(static_cast<size_t>(options.clients));
  std::vector<std::thread> clients;
  std::latch connected(options.clients + 1);
  for (int t = 0; t < options.clients; ++t) {
    clients.emplace_back([&, t] {
      Tally& tally = tallies[static_cast<size_t>(t)];
      tally.latencies_ms.reserve(static_cast<size_t>(options.requests / options.clients + 1));
      Connection connection(options, &tls);
      std::string connect_error;
      if (!connection.open(&connect_error)) ++tally.transport_errors["connect: " + connect_error];
      connected.arrive_and_wait();
      while (next_request++ < options.requests) {
        auto begin = Clock::now();
        std::string error;
        int status = 0;
        if (!connection.is_open()) {
          ++tally.reconnects;
          if (!connection.open(&error)) {
            ++tally.transport_errors["connect: " + error];
            continue;
          }
        }
        bool keep_alive = false;
        status = connection.exchange(request, &keep_alive, &error);
        double ms = std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
        if (status == 0) {
          ++tally.transport_errors[error];
        } else {
          ++tally.statuses[status];
          tally.latencies_ms.push_back(ms);
        }
      }
    });
  }
  connected.arrive_and_wait();
  auto started = Clock::now();
  for (auto& client : clients) client.join();
  double seconds = std::chrono::duration<double>(Clock::now() - started).count();

  Tally total;
  for (auto& tally : tallies) {
    total.latencies_ms.insert(total.latencies_ms.end(), tally.latencies_ms.begin(), tally.latencies_ms.end());
    for (auto& [status, n] : tally.statuses) total.statuses[status] += n;
    for (auto& [what, n] : tally.transport_errors) total.transport_errors[what] += n;
    total.reconnects += tally.reconnects;
  }
  std::sort(total.latencies_ms.begin(), total.latencies_ms.end());
  long answered = static_cast<long>(total.latencies_ms.size());
  long idle_still_open = 0;
  for (auto& connection : idle) idle_still_open += connection && connection->is_open() && connection->still_open();

  std::printf("target: %s  clients: %d  requests: %ld\n",
              options.socket_path.empty() ? ("https://" + options.host + ":" + options.port + options.path).c_str()
                                          : (options.socket_path + " " + options.path).c_str(),
              options.clients, options.requests);
  if (options.idle_connections > 0) {
    std::printf("idle connections: %d opened, %ld failed, %ld still open at the end\n", options.idle_connections,
                idle_failures.load(), idle_still_open);
  }
  std::printf("answered: %ld in %.2f s: %.0f requests/s\n", answered, seconds,
              seconds > 0 ? static_cast<double>(answered) / seconds : 0.0);
  std::printf("latency ms: p50 %.2f  p90 %.2f  p99 %.2f  max %.2f\n", percentile(total.latencies_ms, 0.50),
              percentile(total.latencies_ms, 0.90), percentile(total.latencies_ms, 0.99),
              total.latencies_ms.empty() ? 0.0 : total.latencies_ms.back());
  long failures = 0;
  std::printf("status:");
  for (auto& [status, n] : total.statuses) {
    std::printf(" %d x %ld", status, n);
    if (status / 100 != 2) failures += n;
  }
  std::printf("\n");
  for (auto& [what, n] : total.transport_errors) {
    std::printf("transport error: %s x %ld\n", what.c_str(), n);
    failures += n;
  }
  std::printf("reconnects: %ld\nerrors: %ld\n", total.reconnects, failures);
  return failures == 0 && idle_failures == 0 ? 0 : 1;
}
