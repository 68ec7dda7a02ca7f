// The file server's state word and recycling, against a control server on
// the socket under a scratch root.
#include "switches/filer_state.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <thread>
#include <vector>

#include "hubwarden_info/switches/filerctl/filer_codes.h"
#include "platform/filer_wire.h"
#include "platform/linux/basics_test_support.h"

namespace hubwarden {
namespace {

using platform::FilerMessage;
using namespace std::chrono_literals;

// Answers every request of one connection with a state record carrying
// state, or an empty reply for a command; keeps what it was sent.
class StateServer {
 public:
  explicit StateServer(const platform::testing::ScratchRoot& root, uint32_t state) : state_(state) {
    root.mkdir("/run/hubwarden");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, root.path(platform::kFilerSocket).c_str(), sizeof address.sun_path - 1);
    listener_.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(::bind(listener_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(::listen(listener_.get(), 1), 0);
    thread_ = std::thread([this] { serve(); });
  }
  // The requests, once the client has hung up. A client that never came
  // fails the test instead of hanging it.
  const std::vector<FilerMessage>& requests() {
    ::shutdown(listener_.get(), SHUT_RDWR);
    if (thread_.joinable()) thread_.join();
    return requests_;
  }
  ~StateServer() { requests(); }

 private:
  void serve() {
    platform::UniqueFd client(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    FilerMessage request;
    while (client.valid() &&
           platform::receive_filer_message(client.get(), &request, 2s) == platform::FilerWireStatus::kOk) {
      FilerMessage reply;
      reply.id = request.id + platform::kFilerReplyOffset;
      std::string record(kFilerStateRecordBytes, '\0');
      std::memcpy(record.data() + 4, &state_, sizeof state_);
      reply.fields = {0u, request.id == platform::kFilerGetServerAttribute ? record : std::string()};
      requests_.push_back(std::move(request));
      if (platform::send_filer_message(client.get(), reply) != platform::FilerWireStatus::kOk) break;
    }
  }

  uint32_t state_;
  platform::UniqueFd listener_;
  std::thread thread_;
  std::vector<FilerMessage> requests_;
};

TEST(FilerStateTest, OnlyARunningServerIsRecycled) {
  platform::testing::ScratchRoot root;
  FilerPort port;
  EXPECT_EQ(get_filer_state(&port), 0u);
  EXPECT_FALSE(port);

  {
    StateServer running(root, kFilerRunning);
    recycle_filer();
    const std::vector<FilerMessage>& sent = running.requests();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[1].id, platform::kFilerSendServerCommand);
    EXPECT_EQ(sent[1].fields, (std::vector<platform::FilerField>{std::string(1, '\0'), kFilerRecycleCommand, 1u, 1u}));
  }
  ::unlink(root.path(platform::kFilerSocket).c_str());
  StateServer stopped(root, 1);
  recycle_filer();
  EXPECT_EQ(stopped.requests().size(), 1u);
}

}  // namespace
}  // namespace hubwarden
