// Recycling the file server, against a control server on the socket under a
// scratch root.
#include "switches/filer_state.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "hubwarden_info/switches/filerctl/filer_codes.h"
#include "hubwarden_info/switches/filerctl/filer_test_server.h"
#include "platform/linux/basics_test_support.h"

namespace hubwarden {
namespace {

using platform::FilerMessage;

// Answers every request with a state record carrying state, while client
// runs; returns what was sent.
std::vector<FilerMessage> serve_state(uint32_t state, void (*client)()) {
  testing::ScriptedFilerServer server([state](FilerMessage& request) {
    FilerMessage reply;
    reply.id = request.id + platform::kFilerReplyOffset;
    std::string record(platform::kFilerStateRecordBytes, '\0');
    std::memcpy(record.data() + 4, &state, sizeof state);
    reply.fields = {0u, record};
    return std::optional(std::move(reply));
  });
  client();
  server.stop();
  return std::move(server.requests());
}

TEST(FilerStateTest, OnlyARunningServerIsRecycled) {
  platform::testing::ScratchRoot root;
  FilerPort port;
  EXPECT_EQ(get_filer_state(&port), 0u);
  EXPECT_FALSE(port);

  std::vector<FilerMessage> sent = serve_state(platform::kFilerRunning, recycle_filer);
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[1].id, platform::kFilerSendServerCommand);
  EXPECT_EQ(sent[1].fields,
            (std::vector<platform::FilerField>{std::string(1, '\0'), platform::kFilerRecycleCommand, 1u, 1u}));
  EXPECT_EQ(serve_state(1, recycle_filer).size(), 1u);
}

}  // namespace
}  // namespace hubwarden
