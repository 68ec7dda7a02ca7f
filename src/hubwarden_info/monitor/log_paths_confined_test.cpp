// Reading a log through links inside a sandbox root stays inside the root.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "monitor/log_paths.h"
#include "platform/file_util.h"
#include "request/spine_test_support.h"

namespace hubwarden {
namespace {

namespace fs = std::filesystem;

TEST(DoReadFileConfined, LinksResolveInsideTheRootAndOnlyRegularFilesAreRead) {
  platform::testing::ScratchDir outside_root;  // a folder outside the sandbox root
  const std::string& outside = outside_root.dir();
  ASSERT_TRUE(platform::write_file_atomically(outside + "/shadow", "root:secret\n"));
  {
    testing::SandboxRoot root;
    fs::create_directories(root.path("/var/log"));
    fs::create_symlink(outside + "/shadow", root.path("/var/log/secure.log"));
    fs::create_symlink("../../../../../../../../../.." + outside + "/shadow", root.path("/var/log/system.log"));
    size_t length = 9;
    EXPECT_FALSE(do_read_file(root.path("/var/log/secure.log").c_str(), &length));
    EXPECT_EQ(length, 0u);
    EXPECT_FALSE(do_read_file(root.path("/var/log/system.log").c_str(), &length));

    // The same absolute link text finds the sandbox's own copy.
    ASSERT_TRUE(platform::write_file_atomically(root.path(outside + "/shadow"), "sandbox\n"));
    std::unique_ptr<char[]> buffer = do_read_file(root.path("/var/log/secure.log").c_str(), &length);
    ASSERT_TRUE(buffer);
    EXPECT_EQ(std::string(buffer.get(), length), "sandbox\n");

    // A FIFO would block a plain open; a directory has no contents.
    ASSERT_EQ(::mkfifo(root.path("/var/log/kernel.log").c_str(), 0600), 0);
    EXPECT_FALSE(do_read_file(root.path("/var/log/kernel.log").c_str(), &length));
    EXPECT_FALSE(do_read_file(root.path("/var/log").c_str(), &length));
  }
}

}  // namespace
}  // namespace hubwarden
