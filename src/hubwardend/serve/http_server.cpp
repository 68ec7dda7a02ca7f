// The HTTPS and Unix-socket entrances: listeners, one connection object per
// client, the per-connection timeouts and the answers the transport gives
// by itself. Parsing and writing of HTTP are Beast's; TLS is OpenSSL's.
//
// Every connection runs on its own strand, so its state needs no lock. A
// connection stays alive through its pending operations; while its request
// is with the handler it has none, and the response slot handed to the
// handler keeps it alive instead.
#include "hubwardend/serve/http_server.h"

#include <openssl/ssl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <boost/asio/dispatch.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/stream_traits.hpp>
#include <boost/beast/http.hpp>
#include <cctype>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>
#include <type_traits>
#include <unordered_map>

#include "platform/file_util.h"
#include "platform/socket_path.h"

namespace hubwardend::serve {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace ssl = asio::ssl;
using tcp = asio::ip::tcp;
using unix_socket = asio::local::stream_protocol::socket;
using tls_stream = ssl::stream<tcp::socket>;
using error_code = boost::system::error_code;

namespace {

// How long a closing connection may take to say goodbye (TLS close_notify,
// or the rest of a request we refused) before it is simply cut.
constexpr std::chrono::seconds kLingerTime{1};
constexpr size_t kLingerBytes = size_t{1} << 20;
constexpr size_t kReadChunk = 4096;
constexpr auto kAcceptRetryDelay = std::chrono::milliseconds(50);

// Ciphers for TLS 1.2: forward secrecy and authenticated encryption only.
// TLS 1.3 suites are OpenSSL's defaults, which are all of that kind.
constexpr const char* kTls12Ciphers = "ECDHE+AESGCM:ECDHE+CHACHA20:!aNULL:!eNULL:!SHA1";

bool is_malformed_request(const error_code& ec) {
  if (ec.category() != http::make_error_code(http::error::bad_method).category()) return false;
  auto value = static_cast<http::error>(ec.value());
  return value >= http::error::bad_line_ending && value <= http::error::bad_obs_fold;
}

bool equals_ignoring_case(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i]))) return false;
  }
  return true;
}

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

// Bodies arrive as sent: a compressed body is refused rather than expanded,
// so a small request can never become a large one here.
bool has_only_identity_coding(const http::fields& fields) {
  for (const auto& field : fields) {
    if (field.name() == http::field::content_encoding && !equals_ignoring_case(trimmed(field.value()), "identity") &&
        !trimmed(field.value()).empty()) {
      return false;
    }
    if (field.name() == http::field::transfer_encoding && !equals_ignoring_case(trimmed(field.value()), "chunked")) {
      return false;
    }
  }
  return true;
}

std::string field_or_empty(const http::fields& fields, http::field name) {
  auto it = fields.find(name);
  return it == fields.end() ? std::string() : std::string(it->value());
}

bool parse_listen_address(const std::string& text, tcp::endpoint* endpoint) {
  size_t colon = text.rfind(':');
  if (colon == std::string::npos || colon + 1 == text.size()) return false;
  std::string host = text.substr(0, colon);
  std::string port_text = text.substr(colon + 1);
  if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
    host = host.substr(1, host.size() - 2);
  } else if (host.find(':') != std::string::npos) {
    return false;  // an IPv6 address needs its brackets
  }
  if (port_text.size() > 5 || port_text.find_first_not_of("0123456789") != std::string::npos) return false;
  unsigned long port = std::stoul(port_text);
  if (port > 65535) return false;
  error_code ec;
  auto address = asio::ip::make_address(host, ec);
  if (ec) return false;
  *endpoint = tcp::endpoint(address, static_cast<uint16_t>(port));
  return true;
}

class ConnectionBase {
 public:
  virtual ~ConnectionBase() = default;
  // Cuts the connection. REQUIRES: on the connection's strand, or no I/O
  // thread running.
  virtual void close_now() = 0;
  // Queues the handler's response for writing; any thread.
  virtual void deliver(HttpResponse response) = 0;
};

// What the handler holds: answers once, and answers 500 for a handler
// that dropped its Respond without calling it, so the connection and
// drain() are never left waiting for nothing.
class ResponseSlot {
 public:
  explicit ResponseSlot(std::shared_ptr<ConnectionBase> connection) : connection_(std::move(connection)) {}
  ResponseSlot(const ResponseSlot&) = delete;
  ResponseSlot& operator=(const ResponseSlot&) = delete;
  ~ResponseSlot() {
    if (!answered_.exchange(true)) connection_->deliver(HttpResponse{500, "text/plain", "No reply\n", {}});
  }
  void respond(HttpResponse response) {
    if (!answered_.exchange(true)) connection_->deliver(std::move(response));
  }

 private:
  std::shared_ptr<ConnectionBase> connection_;
  std::atomic<bool> answered_{false};
};

}  // namespace

struct HttpServerCore {
  HttpServerOptions options;
  RequestHandler* handler = nullptr;

  // Declared before the io_context: connections destroyed with it still
  // count themselves out.
  std::atomic<size_t> open{0};
  std::atomic<bool> stopping{false};
  std::mutex flight_mu;
  std::condition_variable flight_cv;
  size_t in_flight = 0;

  // Set when the server is being destroyed; responses arriving after it
  // are dropped instead of posted to an io_context nobody runs.
  std::mutex post_mu;
  std::atomic<bool> gone{false};

  std::mutex connections_mu;
  std::unordered_map<ConnectionBase*, std::weak_ptr<ConnectionBase>> connections;

  std::optional<ssl::context> tls;
  asio::io_context io;
  // Keeps the I/O threads running when nothing is pending on them: after
  // stop_accepting, a connection whose request is with the handler has no
  // operation outstanding, and its reply is posted later.
  std::optional<asio::executor_work_guard<asio::io_context::executor_type>> keep_running;

  struct Listener;
  std::vector<std::unique_ptr<Listener>> listeners;
  std::vector<uint16_t> ports;
  std::vector<std::thread> threads;

  std::string socket_file;
  dev_t socket_dev = 0;
  ino_t socket_ino = 0;

  explicit HttpServerCore(size_t threads) : io(static_cast<int>(threads)) {}

  void begin_flight() {
    std::lock_guard lock(flight_mu);
    ++in_flight;
  }
  void end_flight() {
    std::lock_guard lock(flight_mu);
    if (--in_flight == 0) flight_cv.notify_all();
  }
};

namespace {

using Core = HttpServerCore;

template <class Stream>
class Connection final : public ConnectionBase, public std::enable_shared_from_this<Connection<Stream>> {
  static constexpr bool kTls = std::is_same_v<Stream, tls_stream>;

 public:
  Connection(std::shared_ptr<Core> core, Stream stream, HttpRequest peer)
      : core_(std::move(core)), stream_(std::move(stream)), deadline_(stream_.get_executor()), peer_(std::move(peer)) {
    ++core_->open;
  }

  ~Connection() override {
    finish_flight();
    {
      std::lock_guard lock(core_->connections_mu);
      core_->connections.erase(this);
    }
    --core_->open;
  }

  // REQUIRES: on the connection's strand.
  void start() {
    {
      std::lock_guard lock(core_->connections_mu);
      core_->connections.emplace(this, this->weak_from_this());
    }
    // The handshake and the first request's headers share one allowance,
    // so a client that stalls in either is cut at the same time.
    arm(core_->options.header_timeout);
    if constexpr (kTls) {
      stream_.async_handshake(ssl::stream_base::server, [self = this->shared_from_this()](const error_code& ec) {
        if (ec) return self->close_now();
        self->await_request();
      });
    } else {
      await_request();
    }
  }

  void close_now() override {
    if (closed_) return;
    closed_ = true;
    deadline_.cancel();
    error_code ignored;
    socket().close(ignored);
    finish_flight();
  }

  void deliver(HttpResponse response) override {
    std::lock_guard lock(core_->post_mu);
    if (core_->gone) return;
    asio::post(stream_.get_executor(), [self = this->shared_from_this(), response = std::move(response)]() mutable {
      self->write_reply(std::move(response));
    });
  }

 private:
  auto& socket() { return beast::get_lowest_layer(stream_); }

  void arm(std::chrono::steady_clock::duration timeout) {
    deadline_.expires_after(timeout);
    deadline_.async_wait([self = this->shared_from_this()](const error_code& ec) {
      if (ec == asio::error::operation_aborted) return;
      // A wait that completed just before the timer was set again.
      if (self->deadline_.expiry() > std::chrono::steady_clock::now()) return;
      self->close_now();
    });
  }

  void disarm() { deadline_.expires_at(std::chrono::steady_clock::time_point::max()); }

  void finish_flight() {
    if (!in_flight_) return;
    in_flight_ = false;
    core_->end_flight();
  }

  void await_request() {
    if (closed_ || core_->gone) return close_now();
    const HttpServerOptions& options = core_->options;
    parser_.emplace();
    parser_->header_limit(static_cast<std::uint32_t>(std::min<size_t>(options.max_header_bytes, UINT32_MAX)));
    parser_->body_limit(options.max_body_bytes);
    if (first_request_) {
      first_request_ = false;
      read_header();
    } else if (buffer_.size() > 0) {  // pipelined: the next request is already here
      arm(options.header_timeout);
      read_header();
    } else {
      // Idle between requests: allowed longer, but once a request starts
      // its headers must come as fast as a new connection's.
      arm(options.keep_alive_timeout);
      stream_.async_read_some(buffer_.prepare(kReadChunk),
                              [self = this->shared_from_this()](const error_code& ec, size_t n) {
                                if (ec) return self->close_now();
                                self->buffer_.commit(n);
                                self->arm(self->core_->options.header_timeout);
                                self->read_header();
                              });
    }
  }

  void read_header() {
    http::async_read_header(stream_, buffer_, *parser_,
                            [self = this->shared_from_this()](const error_code& ec, size_t) { self->on_header(ec); });
  }

  void on_header(const error_code& ec) {
    if (ec) return on_read_error(ec);
    const auto& header = parser_->get();
    if (!has_only_identity_coding(header)) return refuse(400, "Compressed request bodies are not accepted\n");
    if (core_->stopping) return refuse(503, "The server is stopping\n");
    if (parser_->is_done()) return dispatch();
    arm(core_->options.body_timeout);
    auto expect = header.find(http::field::expect);
    if (expect != header.end() && header.version() >= 11 && equals_ignoring_case(expect->value(), "100-continue")) {
      auto interim = std::make_shared<http::response<http::empty_body>>(http::status::continue_, 11);
      http::async_write(stream_, *interim, [self = this->shared_from_this(), interim](const error_code& ec, size_t) {
        if (ec) return self->close_now();
        self->read_body();
      });
      return;
    }
    read_body();
  }

  void read_body() {
    http::async_read(stream_, buffer_, *parser_, [self = this->shared_from_this()](const error_code& ec, size_t) {
      if (ec) return self->on_read_error(ec);
      self->dispatch();
    });
  }

  void on_read_error(const error_code& ec) {
    if (ec == http::error::header_limit || ec == http::error::buffer_overflow) {
      refuse(431, "Request header fields too large\n");
    } else if (ec == http::error::body_limit) {
      refuse(413, "Request body too large\n");
    } else if (is_malformed_request(ec)) {
      refuse(400, "Bad request: " + ec.message() + "\n");
    } else {
      close_now();  // the peer went away, or a timeout cut it
    }
  }

  void dispatch() {
    disarm();
    auto message = parser_->release();
    parser_.reset();
    keep_alive_ = message.keep_alive();
    version_ = message.version();
    answering_head_ = message.method() == http::verb::head;
    // Checked again: stop_accepting may have come while the body arrived.
    if (core_->stopping) return refuse(503, "The server is stopping\n");

    HttpRequest request = peer_;
    request.method = std::string(message.method_string());
    request.target = std::string(message.target());
    request.content_type = field_or_empty(message, http::field::content_type);
    request.accept = field_or_empty(message, http::field::accept);
    request.authorization = field_or_empty(message, http::field::authorization);
    request.cookie = field_or_empty(message, http::field::cookie);
    request.csrf_token = std::string(message["X-CSRF-Token"]);
    request.origin = field_or_empty(message, http::field::origin);
    request.if_none_match = field_or_empty(message, http::field::if_none_match);
    request.body = std::move(message.body());

    in_flight_ = true;
    core_->begin_flight();
    auto slot = std::make_shared<ResponseSlot>(this->shared_from_this());
    Respond respond = [slot](HttpResponse response) { slot->respond(std::move(response)); };
    try {
      core_->handler->handle(std::move(request), std::move(respond));
    } catch (...) {
      slot->respond(HttpResponse{500, "text/plain", "Internal error\n", {}});
    }
  }

  void write_reply(HttpResponse reply) {
    if (closed_) return;
    bool keep_alive = keep_alive_ && !core_->stopping;
    send(std::move(reply), keep_alive);
  }

  // Answers a request the handler never sees, then closes: after a parse
  // error the stream's position is unknown.
  void refuse(int status, std::string text) {
    if (parser_ && parser_->is_header_done()) version_ = parser_->get().version();
    answering_head_ = false;  // the connection closes after it: the text may as well be read
    disarm();
    send(HttpResponse{status, "text/plain; charset=utf-8", std::move(text), {}}, false);
  }

  void send(HttpResponse reply, bool keep_alive) {
    auto message = std::make_shared<http::response<http::string_body>>();
    message->version(version_);
    message->result(static_cast<unsigned>(reply.status));
    message->set(http::field::server, "hubwardend");
    bool bodiless = reply.status == 204 || reply.status == 304 || (reply.status >= 100 && reply.status < 200);
    if (!bodiless) {
      if (!reply.content_type.empty()) message->set(http::field::content_type, reply.content_type);
      size_t length = reply.body.size();
      if (!answering_head_) message->body() = std::move(reply.body);
      message->content_length(length);
    }
    for (auto& [name, value] : reply.headers) message->insert(name, value);
    message->keep_alive(keep_alive);
    arm(core_->options.body_timeout);  // a client that does not read is cut like one that does not send
    http::async_write(stream_, *message,
                      [self = this->shared_from_this(), message, keep_alive](const error_code& ec, size_t) {
                        self->finish_flight();
                        if (ec) return self->close_now();
                        if (keep_alive) return self->await_request();
                        self->linger_and_close();
                      });
  }

  // Lets the peer read what was sent before the connection goes: a close
  // with unread input would reset the connection and could destroy the
  // response on its way.
  void linger_and_close() {
    if (closed_ || core_->gone) return close_now();
    arm(kLingerTime);
    if constexpr (kTls) {
      stream_.async_shutdown([self = this->shared_from_this()](const error_code&) { self->close_now(); });
    } else {
      error_code ignored;
      socket().shutdown(asio::socket_base::shutdown_send, ignored);
      discard_input(0);
    }
  }

  void discard_input(size_t discarded) {
    if (discarded >= kLingerBytes) return close_now();
    buffer_.clear();
    socket().async_read_some(buffer_.prepare(kReadChunk),
                             [self = this->shared_from_this(), discarded](const error_code& ec, size_t n) {
                               if (ec) return self->close_now();
                               self->discard_input(discarded + n);
                             });
  }

  std::shared_ptr<Core> core_;
  Stream stream_;
  asio::steady_timer deadline_;
  HttpRequest peer_;  // the entrance and who is on the other end
  beast::flat_buffer buffer_;
  std::optional<http::request_parser<http::string_body>> parser_;
  unsigned version_ = 11;
  bool keep_alive_ = false;
  // A reply to HEAD announces the length of the body it leaves out.
  bool answering_head_ = false;
  bool first_request_ = true;
  bool in_flight_ = false;
  bool closed_ = false;
};

}  // namespace

// One listening socket and its accept loop. The acceptor lives on its own
// strand so that stop_accepting can close it from any thread.
struct HttpServerCore::Listener {
  virtual ~Listener() = default;
  virtual void start_accepting() = 0;
  virtual void close() = 0;  // REQUIRES: on the listener's strand, or no I/O thread running
  virtual asio::strand<asio::io_context::executor_type>& strand() = 0;
};

namespace {

template <class Protocol>
class ListenerOf final : public Core::Listener {
 public:
  using Acceptor = typename Protocol::acceptor;
  using Socket = typename Protocol::socket;

  explicit ListenerOf(Core* core)
      : core_(core), strand_(asio::make_strand(core->io)), acceptor_(strand_), retry_(strand_) {}

  Acceptor& acceptor() { return acceptor_; }
  void set_owner(std::weak_ptr<Core> owner) { owner_ = std::move(owner); }

  void start_accepting() override {
    acceptor_.async_accept(asio::make_strand(core_->io), [this](const error_code& ec, Socket socket) {
      if (!acceptor_.is_open() || ec == asio::error::operation_aborted) return;
      if (ec) {
        // Out of descriptors, most likely: wait instead of spinning.
        retry_.expires_after(kAcceptRetryDelay);
        retry_.async_wait([this](const error_code& ec) {
          if (!ec && acceptor_.is_open()) start_accepting();
        });
        return;
      }
      if (core_->stopping || core_->gone || core_->open >= core_->options.max_connections) {
        error_code ignored;
        socket.close(ignored);
      } else if (auto core = owner_.lock()) {
        admit(std::move(core), std::move(socket));
      }
      start_accepting();
    });
  }

  void close() override {
    error_code ignored;
    acceptor_.close(ignored);
    retry_.cancel();
  }

  asio::strand<asio::io_context::executor_type>& strand() override { return strand_; }

 private:
  void admit(std::shared_ptr<Core> core, Socket socket);

  Core* core_;
  std::weak_ptr<Core> owner_;
  asio::strand<asio::io_context::executor_type> strand_;
  Acceptor acceptor_;
  asio::steady_timer retry_;
};

template <>
void ListenerOf<tcp>::admit(std::shared_ptr<Core> core, tcp::socket socket) {
  error_code ec;
  socket.set_option(tcp::no_delay(true), ec);
  HttpRequest peer;
  peer.entrance = Entrance::kHttps;
  auto remote = socket.remote_endpoint(ec);
  if (!ec) {
    auto address = remote.address();
    // A v4 client on a dual-stack socket is named by its v4 address.
    if (address.is_v6() && address.to_v6().is_v4_mapped()) {
      address = asio::ip::make_address_v4(asio::ip::v4_mapped, address.to_v6());
    }
    peer.peer_address = address.to_string();
  }
  auto executor = socket.get_executor();
  auto connection =
      std::make_shared<Connection<tls_stream>>(core, tls_stream(std::move(socket), *core->tls), std::move(peer));
  asio::dispatch(executor, [connection] { connection->start(); });
}

template <>
void ListenerOf<asio::local::stream_protocol>::admit(std::shared_ptr<Core> core, unix_socket socket) {
  HttpRequest peer;
  peer.entrance = Entrance::kUnixSocket;
  struct ucred credentials {};
  socklen_t length = sizeof credentials;
  if (::getsockopt(socket.native_handle(), SOL_SOCKET, SO_PEERCRED, &credentials, &length) == 0) {
    peer.peer_uid = credentials.uid;
    peer.peer_pid = credentials.pid;
  }
  auto executor = socket.get_executor();
  auto connection = std::make_shared<Connection<unix_socket>>(core, std::move(socket), std::move(peer));
  asio::dispatch(executor, [connection] { connection->start(); });
}

bool load_tls(const HttpServerOptions& options, std::optional<ssl::context>* tls, std::string* error) {
  tls->emplace(ssl::context::tls_server);
  SSL_CTX* native = (*tls)->native_handle();
  SSL_CTX_set_min_proto_version(native, TLS1_2_VERSION);
  SSL_CTX_set_options(native, SSL_OP_NO_RENEGOTIATION | SSL_OP_CIPHER_SERVER_PREFERENCE | SSL_OP_NO_COMPRESSION);
  // Idle connections then hold no read and write buffers.
  SSL_CTX_set_mode(native, SSL_MODE_RELEASE_BUFFERS);
  if (SSL_CTX_set_cipher_list(native, kTls12Ciphers) != 1) {
    *error = "cannot set the TLS cipher list";
    return false;
  }
  error_code ec;
  (*tls)->use_certificate_chain_file(options.certificate_file, ec);
  if (ec) {
    *error = "cannot use the certificate " + options.certificate_file + ": " + ec.message();
    return false;
  }
  (*tls)->use_private_key_file(options.key_file, ssl::context::pem, ec);
  if (ec) {
    *error = "cannot use the key " + options.key_file + ": " + ec.message();
    return false;
  }
  if (SSL_CTX_check_private_key(native) != 1) {
    *error = "the key " + options.key_file + " does not belong to the certificate " + options.certificate_file;
    return false;
  }
  return true;
}

std::unique_ptr<ListenerOf<asio::local::stream_protocol>> bind_socket(Core* core, std::string* error) {
  const HttpServerOptions& options = core->options;
  const std::string& path = options.socket_path;
  sockaddr_un address;
  switch (platform::claim_socket_path(path, SOCK_STREAM, &address)) {
    case platform::SocketPathClaim::kFree:
      break;
    case platform::SocketPathClaim::kTooLong:
      *error = "socket path too long: " + path;
      return nullptr;
    case platform::SocketPathClaim::kNotASocket:
      *error = "cannot use " + path + " for the socket: it exists and is not a socket";
      return nullptr;
    case platform::SocketPathClaim::kInUse:
      *error = "cannot use " + path + " for the socket: another server is listening on it";
      return nullptr;
  }
  size_t slash = path.rfind('/');
  if (slash != std::string::npos && slash > 0 && !platform::make_directories(path.substr(0, slash))) {
    *error = "cannot create the folder of " + path;
    return nullptr;
  }

  auto listener = std::make_unique<ListenerOf<asio::local::stream_protocol>>(core);
  auto& acceptor = listener->acceptor();
  error_code ec;
  acceptor.open(asio::local::stream_protocol(), ec);
  if (!ec) acceptor.bind(asio::local::stream_protocol::endpoint(path), ec);
  if (ec) {
    *error = "cannot bind the socket " + path + ": " + ec.message();
    return nullptr;
  }
  // Nobody can connect before listen(), so the file is never reachable
  // with looser rights than these.
  if (::chmod(path.c_str(), 0660) != 0 ||
      (options.socket_group && ::chown(path.c_str(), static_cast<uid_t>(-1), *options.socket_group) != 0)) {
    *error = "cannot set the owner and mode of the socket " + path + ": " + std::strerror(errno);
    ::unlink(path.c_str());
    return nullptr;
  }
  acceptor.listen(asio::socket_base::max_listen_connections, ec);
  struct stat status {};
  if (ec || ::lstat(path.c_str(), &status) != 0) {
    *error = "cannot listen on the socket " + path + ": " + ec.message();
    ::unlink(path.c_str());
    return nullptr;
  }
  core->socket_file = path;
  core->socket_dev = status.st_dev;
  core->socket_ino = status.st_ino;
  return listener;
}

std::unique_ptr<ListenerOf<tcp>> bind_tcp(Core* core, const std::string& address, uint16_t* port, std::string* error) {
  tcp::endpoint endpoint;
  if (!parse_listen_address(address, &endpoint)) {
    *error = "not a numeric address and port: \"" + address + "\"";
    return nullptr;
  }
  auto listener = std::make_unique<ListenerOf<tcp>>(core);
  auto& acceptor = listener->acceptor();
  error_code ec;
  acceptor.open(endpoint.protocol(), ec);
  if (!ec) acceptor.set_option(asio::socket_base::reuse_address(true), ec);
  // "[::]" and "0.0.0.0" on one port are two listeners, not a clash.
  if (!ec && endpoint.address().is_v6()) acceptor.set_option(asio::ip::v6_only(true), ec);
  if (!ec) acceptor.bind(endpoint, ec);
  if (!ec) acceptor.listen(asio::socket_base::max_listen_connections, ec);
  if (!ec) *port = acceptor.local_endpoint(ec).port();
  if (ec) {
    *error = "cannot listen on " + address + ": " + ec.message();
    return nullptr;
  }
  return listener;
}

}  // namespace

HttpServer::HttpServer(std::shared_ptr<HttpServerCore> core) : core_(std::move(core)) {}

std::unique_ptr<HttpServer> HttpServer::start(const HttpServerOptions& options, RequestHandler* handler,
                                              std::string* error) {
  std::string ignored;
  if (!error) error = &ignored;
  if (!handler) {
    *error = "no request handler";
    return nullptr;
  }
  size_t threads = std::max<size_t>(1, options.io_threads);
  auto core = std::make_shared<HttpServerCore>(threads);
  core->options = options;
  core->handler = handler;

  if (!options.listen.empty() && !load_tls(options, &core->tls, error)) return nullptr;

  // Until the server object exists, a failure must undo the socket file.
  std::unique_ptr<HttpServer> server(new HttpServer(core));
  for (const std::string& address : options.listen) {
    uint16_t port = 0;
    auto listener = bind_tcp(core.get(), address, &port, error);
    if (!listener) return nullptr;
    listener->set_owner(core);
    core->ports.push_back(port);
    core->listeners.push_back(std::move(listener));
  }
  if (!options.socket_path.empty()) {
    auto listener = bind_socket(core.get(), error);
    if (!listener) return nullptr;
    listener->set_owner(core);
    core->listeners.push_back(std::move(listener));
  }
  for (auto& listener : core->listeners) listener->start_accepting();
  core->keep_running.emplace(asio::make_work_guard(core->io));
  for (size_t i = 0; i < threads; ++i) {
    core->threads.emplace_back([io = &core->io] {
      for (;;) {
        try {
          io->run();
          return;
        } catch (...) {
          // A handler's exception must not take the entrance down with it.
        }
      }
    });
  }
  return server;
}

HttpServer::~HttpServer() {
  HttpServerCore& core = *core_;
  {
    std::lock_guard lock(core.post_mu);
    core.gone = true;
  }
  core.stopping = true;
  core.keep_running.reset();
  core.io.stop();
  for (auto& thread : core.threads) thread.join();

  // No I/O thread runs now: connections and listeners may be touched here.
  for (auto& listener : core.listeners) listener->close();
  std::vector<std::shared_ptr<ConnectionBase>> live;
  {
    std::lock_guard lock(core.connections_mu);
    for (auto& [pointer, weak] : core.connections) {
      if (auto connection = weak.lock()) live.push_back(std::move(connection));
    }
  }
  for (auto& connection : live) connection->close_now();
  live.clear();
  // Run the cancelled operations so that they let go of their connections;
  // nothing new is started once gone is set.
  core.io.restart();
  core.io.poll();

  if (!core.socket_file.empty()) {
    struct stat status {};
    if (::lstat(core.socket_file.c_str(), &status) == 0 && status.st_dev == core.socket_dev &&
        status.st_ino == core.socket_ino) {
      ::unlink(core.socket_file.c_str());
    }
  }
}

std::vector<uint16_t> HttpServer::tcp_ports() const { return core_->ports; }

void HttpServer::stop_accepting() {
  if (core_->stopping.exchange(true)) return;
  for (auto& listener : core_->listeners) {
    HttpServerCore::Listener* raw = listener.get();
    asio::post(raw->strand(), [raw] { raw->close(); });
  }
}

bool HttpServer::drain(std::chrono::steady_clock::time_point deadline) {
  std::unique_lock lock(core_->flight_mu);
  return core_->flight_cv.wait_until(lock, deadline, [this] { return core_->in_flight == 0; });
}

size_t HttpServer::open_connections() const { return core_->open; }

}  // namespace hubwardend::serve
