// Tests of the real transport against a one-shot HTTP server on a Unix
// socket in a scratch folder: what goes on the wire, and how answers and
// failures come back. Every wait is bounded.
#include "hubwarden_client/transport.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <future>
#include <string>

namespace hubwarden_client {
namespace {

// Accepts one connection, reads one request whole and writes the canned
// answer; the request text is what the future yields ("" on a timeout).
class OneShotServer {
 public:
  OneShotServer(const std::string& path, std::string answer) : answer_(std::move(answer)) {
    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ::unlink(path.c_str());  // left by the previous server
    EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0) << path << ": " << strerror(errno);
    EXPECT_EQ(listen(fd_, 1), 0);
    request_ = std::async(std::launch::async, [this] { return serve(); });
  }
  ~OneShotServer() {
    if (request_.valid()) request_.wait();
    close(fd_);
  }
  std::string request() { return request_.get(); }

 private:
  static bool wait_readable(int fd) {
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, 5000) == 1;
  }

  std::string serve() {
    if (!wait_readable(fd_)) return "";
    int client = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) return "";
    std::string text;
    char buf[4096];
    while (wait_readable(client)) {
      ssize_t n = read(client, buf, sizeof buf);
      if (n <= 0) break;
      text.append(buf, static_cast<size_t>(n));
      size_t end = text.find("\r\n\r\n");
      if (end == std::string::npos) continue;
      size_t length_at = text.find("Content-Length: ");
      size_t length = length_at == std::string::npos ? 0 : std::stoul(text.substr(length_at + 16));
      if (text.size() >= end + 4 + length) break;
    }
    if (write(client, answer_.data(), answer_.size()) < 0) text += "(answer not written)";
    close(client);
    return text;
  }

  int fd_ = -1;
  std::string answer_;
  std::future<std::string> request_;
};

class TransportTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (std::filesystem::temp_directory_path() / "hubwarden-client-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    dir_ = pattern;
    socket_ = (dir_ / "d.sock").string();
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  std::unique_ptr<Transport> transport() {
    Endpoint endpoint;
    endpoint.socket_path = socket_;
    endpoint.user = "ignored";
    endpoint.password = "never sent";
    endpoint.timeout_seconds = 5;
    return make_curl_transport(endpoint);
  }

  std::filesystem::path dir_;
  std::string socket_;
};

TEST_F(TransportTest, PostsOneRequestOverTheSocket) {
  const std::string body = "<?xml version=\"1.0\"?>\n<plist version=\"1.0\"><dict/></plist>\n";
  {
    OneShotServer server(socket_,
                         "HTTP/1.1 200 OK\r\nContent-Type: application/xml\r\nContent-Length: 5\r\n"
                         "Connection: close\r\n\r\nhello");
    PostResult result = transport()->post("hubwarden_info", "application/xml", body);
    ASSERT_TRUE(result.ok) << result.error;
    EXPECT_EQ(result.reply.status, 200);
    EXPECT_EQ(result.reply.content_type, "application/xml");
    EXPECT_EQ(result.reply.body, "hello");

    std::string request = server.request();
    EXPECT_TRUE(request.starts_with("POST /commands/hubwarden_info HTTP/1.1\r\n")) << request;
    EXPECT_NE(request.find("\r\nHost: localhost\r\n"), std::string::npos) << request;
    EXPECT_NE(request.find("\r\nContent-Type: application/xml\r\n"), std::string::npos) << request;
    EXPECT_NE(request.find("\r\nAccept: application/xml\r\n"), std::string::npos) << request;
    EXPECT_NE(request.find("\r\nContent-Length: " + std::to_string(body.size()) + "\r\n"), std::string::npos);
    EXPECT_EQ(request.find("Expect:"), std::string::npos) << request;
    // The socket's peer credentials name the user: no password goes out.
    EXPECT_EQ(request.find("Authorization"), std::string::npos) << request;
    EXPECT_TRUE(request.ends_with("\r\n\r\n" + body));
  }
  {
    OneShotServer server(socket_, "HTTP/1.1 204 No Content\r\nConnection: close\r\n\r\n");
    PostResult result = transport()->post("hubwarden_dns", "application/xml", body);
    ASSERT_TRUE(result.ok) << result.error;
    EXPECT_EQ(result.reply.status, 204);
    EXPECT_EQ(result.reply.body, "");
    EXPECT_TRUE(server.request().starts_with("POST /commands/hubwarden_dns "));
  }
}

TEST_F(TransportTest, FailuresComeBackAsValues) {
  {
    OneShotServer server(socket_,
                         "HTTP/1.1 413 Payload Too Large\r\nContent-Length: 9\r\nConnection: close\r\n\r\ntoo large");
    PostResult result = transport()->post("hubwarden_info", "application/xml", "x");
    ASSERT_TRUE(result.ok) << result.error;
    EXPECT_EQ(result.reply.status, 413);
    EXPECT_EQ(result.reply.body, "too large");
  }
  {
    // A server that closes without answering.
    OneShotServer server(socket_, "");
    PostResult result = transport()->post("hubwarden_info", "application/xml", "x");
    EXPECT_FALSE(result.ok);
    EXPECT_NE(result.error, "");
  }
  std::filesystem::remove(socket_);
  PostResult missing = transport()->post("hubwarden_info", "application/xml", "x");
  EXPECT_FALSE(missing.ok);
  EXPECT_EQ(missing.error, "cannot connect: No such file or directory");
}

TEST(TransportNamesTest, UrlsAndModules) {
  std::string url, error;
  ASSERT_TRUE(normalize_url("server.example", &url, &error)) << error;
  EXPECT_EQ(url, "https://server.example:311");
  ASSERT_TRUE(normalize_url("https://[::1]:8443/", &url, &error)) << error;
  EXPECT_EQ(url, "https://[::1]:8443");
  ASSERT_TRUE(normalize_url("https://10.0.0.1/base/", &url, &error)) << error;
  EXPECT_EQ(url, "https://10.0.0.1:311/base");
  for (const char* bad : {"http://server", "ftp://server", "https://", "https://h/?x=1", ""})
    EXPECT_FALSE(normalize_url(bad, &url, &error)) << bad;

  EXPECT_TRUE(is_valid_module_name("hubwarden_info"));
  EXPECT_TRUE(is_valid_module_name("a.b-c"));
  for (const char* bad : {"", ".", "..", "a/b", "a b", "mod?x", "é"}) EXPECT_FALSE(is_valid_module_name(bad)) << bad;
}

}  // namespace
}  // namespace hubwarden_client
