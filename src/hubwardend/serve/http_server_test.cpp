// The entrances over real sockets: TLS on a loopback port, a Unix socket in
// a scratch folder, and clients that misbehave on purpose.
#include "hubwardend/serve/http_server.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <boost/asio/buffer.hpp>
#include <boost/beast/http.hpp>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "hubwardend/serve/tls_identity.h"
#include "platform/linux/basics_test_support.h"

namespace hubwardend::serve {
namespace {

namespace http = boost::beast::http;
using Response = http::response<http::string_body>;
using namespace std::chrono_literals;
using platform::testing::ScratchDir;

// Answers "echo:<body>" at once, or keeps the Respond for the test to use
// when hold is set.
class StubHandler : public RequestHandler {
 public:
  void handle(HttpRequest request, Respond respond) override {
    std::lock_guard lock(mu_);
    seen_.push_back(request);
    if (hold_) {
      held_.push_back(std::move(respond));
      changed_.notify_all();
      return;
    }
    respond(HttpResponse{200, "text/plain", "echo:" + request.body, {{"X-Target", request.target}}});
  }
  void hold(bool on) {
    std::lock_guard lock(mu_);
    hold_ = on;
  }
  // Waits (bounded) until n responds are held and takes them.
  std::vector<Respond> take_held(size_t n) {
    std::unique_lock lock(mu_);
    changed_.wait_for(lock, 5s, [&] { return held_.size() >= n; });
    return std::exchange(held_, {});
  }
  std::vector<HttpRequest> seen() {
    std::lock_guard lock(mu_);
    return seen_;
  }

 private:
  std::mutex mu_;
  std::condition_variable changed_;
  bool hold_ = false;
  std::vector<Respond> held_;
  std::vector<HttpRequest> seen_;
};

// A blocking client with every read bounded; TLS through OpenSSL directly so
// that its protocol versions can be forced.
class Client {
 public:
  static Client tcp(uint16_t port) {
    Client client(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    client.connected_ = ::connect(client.fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    return client;
  }
  static Client local(const std::string& path) {
    Client client(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    client.connected_ = ::connect(client.fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    return client;
  }
  Client(Client&& other) noexcept
      : fd_(std::exchange(other.fd_, -1)),
        connected_(other.connected_),
        ctx_(std::exchange(other.ctx_, nullptr)),
        ssl_(std::exchange(other.ssl_, nullptr)),
        pending_(std::move(other.pending_)) {}
  ~Client() {
    if (ssl_) SSL_free(ssl_);
    if (ctx_) SSL_CTX_free(ctx_);
    if (fd_ >= 0) ::close(fd_);
  }

  bool connected() const { return connected_; }

  // Handshakes, trusting only ca_file when given; max_version forces an
  // old protocol (0: the library's newest). Returns "" or the error.
  std::string start_tls(const std::string& ca_file, int max_version = 0) {
    ctx_ = SSL_CTX_new(TLS_client_method());
    if (max_version) {
      SSL_CTX_set_min_proto_version(ctx_, max_version);
      SSL_CTX_set_max_proto_version(ctx_, max_version);
      SSL_CTX_set_cipher_list(ctx_, "DEFAULT:@SECLEVEL=0");
    }
    if (!ca_file.empty()) {
      SSL_CTX_load_verify_locations(ctx_, ca_file.c_str(), nullptr);
      SSL_CTX_set_verify(ctx_, SSL_VERIFY_PEER, nullptr);
      X509_VERIFY_PARAM_set1_ip_asc(SSL_CTX_get0_param(ctx_), "127.0.0.1");
    }
    ssl_ = SSL_new(ctx_);
    SSL_set_fd(ssl_, fd_);
    ERR_clear_error();
    if (SSL_connect(ssl_) == 1) return "";
    char text[256] = "handshake failed";
    if (unsigned long code = ERR_get_error()) ERR_error_string_n(code, text, sizeof text);
    return text;
  }

  bool send(std::string_view data) {
    while (!data.empty()) {
      long n = ssl_ ? SSL_write(ssl_, data.data(), static_cast<int>(data.size()))
                    : ::send(fd_, data.data(), data.size(), MSG_NOSIGNAL);
      if (n <= 0) return false;
      data.remove_prefix(static_cast<size_t>(n));
    }
    return true;
  }

  // One response, or nullopt when the connection ends (or 5 s pass) first.
  // head: the reply to a HEAD request, which has no body whatever its
  // Content-Length says.
  std::optional<Response> read_response(bool head = false) {
    http::response_parser<http::string_body> parser;
    parser.eager(true);
    parser.skip(head);
    for (;;) {
      if (!pending_.empty()) {
        boost::system::error_code ec;
        size_t used = parser.put(boost::asio::buffer(pending_), ec);
        pending_.erase(0, used);
        if (ec && ec != http::error::need_more) return std::nullopt;
        if (parser.is_done()) return parser.release();
        if (used > 0 && !ec) continue;
      }
      if (!read_more(5s)) return std::nullopt;
    }
  }

  // True when the server closes the connection within limit.
  bool closed_within(std::chrono::milliseconds limit) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < deadline) {
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      if (!read_more(std::max(left, 1ms))) return errno != EAGAIN && errno != EWOULDBLOCK;
    }
    return false;
  }

 private:
  explicit Client(int fd) : fd_(fd) {}

  bool read_more(std::chrono::milliseconds limit) {
    timeval timeout{static_cast<time_t>(limit.count() / 1000), static_cast<suseconds_t>(limit.count() % 1000 * 1000)};
    ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    char buffer[16384];
    errno = 0;
    long n = ssl_ ? SSL_read(ssl_, buffer, sizeof buffer) : ::recv(fd_, buffer, sizeof buffer, 0);
    if (n <= 0) return false;
    pending_.append(buffer, static_cast<size_t>(n));
    return true;
  }

  int fd_ = -1;
  bool connected_ = false;
  SSL_CTX* ctx_ = nullptr;
  SSL* ssl_ = nullptr;
  std::string pending_;
};

std::string post(const std::string& body, const std::string& extra_headers = "") {
  return "POST /commands/hubwarden_info HTTP/1.1\r\nHost: test\r\nContent-Length: " + std::to_string(body.size()) +
         "\r\n" + extra_headers + "\r\n" + body;
}

struct Fixture {
  ScratchDir scratch;
  StubHandler handler;
  std::unique_ptr<HttpServer> server;
  std::string socket_path = scratch.path("/run/hubwardend.sock");
  std::string cert = scratch.path("/tls/server.crt");

  explicit Fixture(bool tls = false, void (*adjust)(HttpServerOptions*) = nullptr) {
    HttpServerOptions options;
    options.socket_path = socket_path;
    options.socket_group = ::getgid();
    if (tls) {
      std::string error;
      EXPECT_TRUE(ensure_tls_identity(cert, scratch.path("/tls/server.key"), &error)) << error;
      options.listen = {"127.0.0.1:0"};
      options.certificate_file = cert;
      options.key_file = scratch.path("/tls/server.key");
    }
    if (adjust) adjust(&options);
    std::string error;
    server = HttpServer::start(options, &handler, &error);
    EXPECT_TRUE(server) << error;
  }
  uint16_t port() const { return server->tcp_ports().at(0); }
};

TEST(HttpServerTest, ServesTlsFromTheSelfSignedPairAndRefusesOldProtocols) {
  Fixture f(/*tls=*/true);
  ASSERT_TRUE(f.server);

  Client client = Client::tcp(f.port());
  ASSERT_EQ(client.start_tls(f.cert), "");
  ASSERT_TRUE(client.send(post("<plist/>", "Content-Type: application/xml\r\n")));
  auto response = client.read_response();
  ASSERT_TRUE(response);
  EXPECT_EQ(response->result_int(), 200);
  EXPECT_EQ(response->body(), "echo:<plist/>");
  EXPECT_EQ((*response)[http::field::server], "hubwardend");
  EXPECT_EQ((*response)[http::field::content_length], "13");
  EXPECT_EQ((*response)["X-Target"], "/commands/hubwarden_info");
  auto seen = f.handler.seen();
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].entrance, Entrance::kHttps);
  EXPECT_EQ(seen[0].peer_address, "127.0.0.1");
  EXPECT_EQ(seen[0].content_type, "application/xml");
  EXPECT_FALSE(seen[0].peer_uid);

  Client old = Client::tcp(f.port());
  std::string error = old.start_tls("", TLS1_1_VERSION);
  EXPECT_NE(error.find("protocol version"), std::string::npos) << "TLS 1.1 not refused by the server: " << error;

  // Plain HTTP on the TLS port is not a handshake: the connection just ends.
  Client plain = Client::tcp(f.port());
  ASSERT_TRUE(plain.send(post("x")));
  EXPECT_TRUE(plain.closed_within(3s));
}

TEST(HttpServerTest, UnixSocketNamesThePeerAndGuardsItsFile) {
  ScratchDir scratch;
  std::string path = scratch.path("/run/hub.sock");
  StubHandler handler;
  HttpServerOptions options;
  options.socket_path = path;
  options.socket_group = ::getgid();
  std::string error;
  {
    // A socket that a live server answers on is not taken over.
    auto live = HttpServer::start(options, &handler, &error);
    ASSERT_TRUE(live) << error;
    EXPECT_FALSE(HttpServer::start(options, &handler, &error));
    EXPECT_NE(error.find(path), std::string::npos) << error;
  }
  // One left by a server that died is replaced.
  int leftover = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(leftover, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ::close(leftover);

  auto server = HttpServer::start(options, &handler, &error);
  ASSERT_TRUE(server) << error;
  struct stat status {};
  ASSERT_EQ(::stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0660u);
  EXPECT_EQ(status.st_gid, ::getgid());

  Client client = Client::local(path);
  ASSERT_TRUE(client.send(post("hi")));
  auto response = client.read_response();
  ASSERT_TRUE(response);
  EXPECT_EQ(response->body(), "echo:hi");
  auto seen = handler.seen();
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].entrance, Entrance::kUnixSocket);
  EXPECT_EQ(seen[0].peer_uid, ::getuid());
  EXPECT_EQ(seen[0].peer_pid, ::getpid());
  EXPECT_EQ(seen[0].peer_address, "");

  server.reset();
  EXPECT_NE(::lstat(path.c_str(), &status), 0) << "socket file left behind";

  // Something that is not a socket is never removed to make room.
  ASSERT_TRUE(platform::write_file_atomically(path, "precious"));
  EXPECT_FALSE(HttpServer::start(options, &handler, &error));
  EXPECT_NE(error.find("not a socket"), std::string::npos) << error;
  EXPECT_EQ(platform::read_file(path), "precious");
}

TEST(HttpServerTest, AnswersBadRequestsItselfAndCloses) {
  Fixture f(false, [](HttpServerOptions* options) {
    options->max_body_bytes = 1000;
    options->max_header_bytes = 2000;
  });
  ASSERT_TRUE(f.server);
  struct Case {
    const char* what;
    std::string request;
    int status;
  };
  std::string chunk(600, 'a');
  const Case cases[] = {
      {"declared body over the limit", "POST /x HTTP/1.1\r\nContent-Length: 1001\r\n\r\n", 413},
      {"chunked body over the limit",
       "POST /x HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n258\r\n" + chunk + "\r\n258\r\n" + chunk +
           "\r\n0\r\n\r\n",
       413},
      {"garbage", "\x16\x03\x01 hello there\r\n\r\n", 400},
      {"negative length", "POST /x HTTP/1.1\r\nContent-Length: -5\r\n\r\n", 400},
      {"gzip body", post(std::string("\x1f\x8b\x08\0\0\0\0\0", 8), "Content-Encoding: gzip\r\n"), 400},
      {"oversized header", post("", "X-Filler: " + std::string(4000, 'b') + "\r\n"), 431},
  };
  for (const Case& c : cases) {
    Client client = Client::local(f.socket_path);
    ASSERT_TRUE(client.send(c.request)) << c.what;
    auto response = client.read_response();
    ASSERT_TRUE(response) << c.what;
    EXPECT_EQ(response->result_int(), c.status) << c.what;
    EXPECT_FALSE(response->keep_alive()) << c.what;
    EXPECT_EQ((*response)[http::field::server], "hubwardend") << c.what;
    EXPECT_TRUE(client.closed_within(3s)) << c.what;
  }
  EXPECT_TRUE(f.handler.seen().empty());

  // A body within the limit, chunked, reaches the handler de-chunked.
  Client client = Client::local(f.socket_path);
  ASSERT_TRUE(client.send("POST /x HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n2\r\nde\r\n0\r\n\r\n"));
  auto response = client.read_response();
  ASSERT_TRUE(response);
  EXPECT_EQ(response->body(), "echo:abcde");
}

TEST(HttpServerTest, KeepsConnectionsAliveAndAnswersPipelinedRequestsInOrder) {
  Fixture f;
  ASSERT_TRUE(f.server);
  Client client = Client::local(f.socket_path);
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(client.send(post("n" + std::to_string(i))));
    auto response = client.read_response();
    ASSERT_TRUE(response) << i;
    EXPECT_EQ(response->body(), "echo:n" + std::to_string(i));
    EXPECT_TRUE(response->keep_alive());
  }
  ASSERT_TRUE(client.send(post("p0") + post("p1") + post("p2", "Connection: close\r\n")));
  for (int i = 0; i < 3; ++i) {
    auto response = client.read_response();
    ASSERT_TRUE(response) << i;
    EXPECT_EQ(response->body(), "echo:p" + std::to_string(i));
    EXPECT_EQ(response->keep_alive(), i < 2);
  }
  EXPECT_TRUE(client.closed_within(3s));

  // A reply to HEAD carries the length of the body it leaves out; the next
  // reply on the connection starts right after its headers.
  Client head = Client::local(f.socket_path);
  ASSERT_TRUE(head.send("HEAD /h HTTP/1.1\r\nHost: x\r\n\r\n" + post("after")));
  auto headers = head.read_response(true);
  ASSERT_TRUE(headers);
  EXPECT_EQ((*headers)[http::field::content_length], "5");
  auto after = head.read_response();
  ASSERT_TRUE(after);
  EXPECT_EQ(after->body(), "echo:after");

  Client old = Client::local(f.socket_path);
  ASSERT_TRUE(old.send("POST /y HTTP/1.0\r\nContent-Length: 2\r\n\r\nok"));
  auto response = old.read_response();
  ASSERT_TRUE(response);
  EXPECT_EQ(response->version(), 10u);
  EXPECT_EQ(response->body(), "echo:ok");
  EXPECT_TRUE(old.closed_within(3s));
}

TEST(HttpServerTest, CutsSilentAndSlowClientsWhileServingOthers) {
  Fixture f(/*tls=*/true, [](HttpServerOptions* options) {
    options->header_timeout = 1s;
    options->max_connections = 6;
  });
  ASSERT_TRUE(f.server);
  auto started = std::chrono::steady_clock::now();
  Client silent_tls = Client::tcp(f.port());  // never starts its handshake
  Client silent = Client::local(f.socket_path);
  Client trickle = Client::local(f.socket_path);
  ASSERT_TRUE(trickle.send("POST /x HTTP/1.1\r\nHost:"));

  Client busy = Client::tcp(f.port());
  ASSERT_EQ(busy.start_tls(f.cert), "");
  ASSERT_TRUE(busy.send(post("served")));
  auto response = busy.read_response();
  ASSERT_TRUE(response);
  EXPECT_EQ(response->body(), "echo:served");

  EXPECT_TRUE(silent_tls.closed_within(3s));
  EXPECT_TRUE(silent.closed_within(3s));
  EXPECT_TRUE(trickle.closed_within(3s));
  EXPECT_LT(std::chrono::steady_clock::now() - started, 3s);

  // Beyond the connection limit a client is let in only to be closed.
  std::vector<Client> crowd;
  for (int i = 0; i < 6; ++i) crowd.push_back(Client::local(f.socket_path));
  Client extra = Client::local(f.socket_path);
  EXPECT_TRUE(extra.closed_within(2s));
  EXPECT_LE(f.server->open_connections(), 6u);
}

TEST(HttpServerTest, LateAnswersStopAcceptingAndDrain) {
  Fixture f;
  ASSERT_TRUE(f.server);
  f.handler.hold(true);

  // One request in flight; its pipelined successor waits for the answer.
  Client busy = Client::local(f.socket_path);
  ASSERT_TRUE(busy.send(post("first") + post("second")));
  auto held = f.handler.take_held(1);
  ASSERT_EQ(held.size(), 1u);
  Client idle = Client::local(f.socket_path);  // open before stopping, sends later
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ(f.handler.seen().size(), 1u) << "a second request was read while the first was with the handler";

  f.server->stop_accepting();
  EXPECT_FALSE(f.server->drain(std::chrono::steady_clock::now() + 200ms));
  std::thread late([respond = held[0]] {
    std::this_thread::sleep_for(100ms);
    respond(HttpResponse{201, "text/plain", "late", {}});
  });
  EXPECT_TRUE(f.server->drain(std::chrono::steady_clock::now() + 5s));
  late.join();
  auto response = busy.read_response();
  ASSERT_TRUE(response);
  EXPECT_EQ(response->result_int(), 201);
  EXPECT_EQ(response->body(), "late");
  EXPECT_FALSE(response->keep_alive()) << "connections close once the server stops";
  EXPECT_TRUE(busy.closed_within(3s));

  ASSERT_TRUE(idle.send(post("after stop")));
  response = idle.read_response();
  ASSERT_TRUE(response);
  EXPECT_EQ(response->result_int(), 503);
  EXPECT_EQ(f.handler.seen().size(), 1u);

  Client refused = Client::local(f.socket_path);
  EXPECT_TRUE(!refused.connected() || refused.closed_within(2s));
}

TEST(HttpServerTest, ADroppedRespondStillAnswersAndShutdownWithRequestsHeldIsClean) {
  Fixture f;
  ASSERT_TRUE(f.server);
  f.handler.hold(true);
  Client client = Client::local(f.socket_path);
  ASSERT_TRUE(client.send(post("a")));
  f.handler.take_held(1).clear();  // the handler forgets to answer
  auto response = client.read_response();
  ASSERT_TRUE(response);
  EXPECT_EQ(response->result_int(), 500);

  // A respond kept past the server's end is harmless.
  ASSERT_TRUE(client.send(post("b")));
  auto held = f.handler.take_held(1);
  ASSERT_EQ(held.size(), 1u);
  f.server.reset();
  held[0](HttpResponse{200, "text/plain", "too late", {}});
  EXPECT_FALSE(client.read_response());
}

}  // namespace
}  // namespace hubwardend::serve
