// Test support: a control server on the file server's socket under a
// scratch root, for the tests of the clients that talk to it. Header-only:
// used by *_test.cpp files alone. The server runs on its own thread; read
// what it was sent only after stop().
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/filer_wire.h"
#include "platform/linux/basics_test_support.h"

namespace hubwarden::testing {

// Each request goes to answer, which returns the reply (or nullopt to hang
// up); every request is kept. Connections are served one at a time.
class ScriptedFilerServer {
 public:
  using Answer = std::function<std::optional<platform::FilerMessage>(platform::FilerMessage&)>;

  explicit ScriptedFilerServer(Answer answer) : answer_(std::move(answer)) {
    root_.mkdir("/run/hubwarden");
    std::string path = root_.path(platform::kFilerSocket);
    listener_.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    if (::bind(listener_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener_.get(), 4) != 0)
      ADD_FAILURE() << "cannot listen on " << path;
    thread_ = std::thread([this] { serve(); });
  }
  ~ScriptedFilerServer() { stop(); }

  // Stops taking connections, once the current one is over. A client that
  // never came fails its own checks instead of hanging the test.
  void stop() {
    ::shutdown(listener_.get(), SHUT_RDWR);
    if (thread_.joinable()) thread_.join();
  }
  std::vector<platform::FilerMessage>& requests() { return requests_; }

 private:
  void serve() {
    for (;;) {
      platform::UniqueFd client(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (!client.valid()) return;
      platform::FilerMessage request;
      while (platform::receive_filer_message(client.get(), &request, std::chrono::seconds(2)) ==
             platform::FilerWireStatus::kOk) {
        std::optional<platform::FilerMessage> answer = answer_(request);
        requests_.push_back(std::move(request));
        if (!answer || platform::send_filer_message(client.get(), *answer) != platform::FilerWireStatus::kOk) break;
      }
    }
  }

  platform::testing::ScratchRoot root_;
  platform::UniqueFd listener_;
  Answer answer_;
  std::vector<platform::FilerMessage> requests_;
  std::thread thread_;
};

}  // namespace hubwarden::testing
