// Recycling the file server, against a control server on the socket under a
// scratch root.
#include "switches/filer_state.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <thread>
#include <vector>

#include "hubwarden_info/switches/filerctl/filer_codes.h"
#include "platform/linux/basics_test_support.h"

namespace hubwarden {
namespace {

using platform::FilerMessage;

// Serves one connection: every request gets a state record carrying state;
// returns what was sent. The listener is shut down first so that a client
// that never came fails the test instead of hanging it.
std::vector<FilerMessage> serve_state(const platform::testing::ScratchRoot& root, uint32_t state, void (*client)()) {
  root.mkdir("/run/hubwarden");
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::string path = root.path(platform::kFilerSocket);
  ::unlink(path.c_str());
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  platform::UniqueFd listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  EXPECT_EQ(::bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  EXPECT_EQ(::listen(listener.get(), 1), 0);
  std::vector<FilerMessage> sent;
  std::thread server([&] {
    platform::UniqueFd peer(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    FilerMessage request;
    while (peer.valid() && platform::receive_filer_message(peer.get(), &request, std::chrono::seconds(2)) ==
                               platform::FilerWireStatus::kOk) {
      FilerMessage reply;
      reply.id = request.id + platform::kFilerReplyOffset;
      std::string record(platform::kFilerStateRecordBytes, '\0');
      std::memcpy(record.data() + 4, &state, sizeof state);
      reply.fields = {0u, record};
      sent.push_back(std::move(request));
      if (platform::send_filer_message(peer.get(), reply) != platform::FilerWireStatus::kOk) break;
    }
  });
  client();
  ::shutdown(listener.get(), SHUT_RDWR);
  server.join();
  return sent;
}

TEST(FilerStateTest, OnlyARunningServerIsRecycled) {
  platform::testing::ScratchRoot root;
  FilerPort port;
  EXPECT_EQ(get_filer_state(&port), 0u);
  EXPECT_FALSE(port);

  std::vector<FilerMessage> sent = serve_state(root, platform::kFilerRunning, recycle_filer);
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[1].id, platform::kFilerSendServerCommand);
  EXPECT_EQ(sent[1].fields,
            (std::vector<platform::FilerField>{std::string(1, '\0'), platform::kFilerRecycleCommand, 1u, 1u}));
  EXPECT_EQ(serve_state(root, 1, recycle_filer).size(), 1u);
}

}  // namespace
}  // namespace hubwarden
