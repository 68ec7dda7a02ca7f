// The zone name comes from the sandbox's own /etc, never from a folder a
// link inside the sandbox points at.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>

#include "identity/time_settings.h"
#include "platform/file_util.h"
#include "request/spine_test_support.h"

namespace hubwarden {
namespace {

namespace fs = std::filesystem;

TEST(TimeZoneConfined, LinkedEtcFolderIsResolvedInsideTheRoot) {
  platform::testing::ScratchDir outside_root;  // a folder outside the sandbox root
  const std::string& outside = outside_root.dir();
  fs::create_symlink("/usr/share/zoneinfo/Europe/Paris", outside + "/localtime");
  ASSERT_TRUE(platform::write_file_atomically(outside + "/timezone", "Europe/Paris\n"));
  {
    testing::SandboxRoot root;
    fs::create_symlink(outside, root.path("/etc"));
    EXPECT_EQ(get_time_zone_name(), "");

    // The same link text, taken from the root, finds the sandbox's zone.
    fs::create_directories(root.path(outside));
    fs::create_symlink("/usr/share/zoneinfo/Asia/Tokyo", root.path(outside + "/localtime"));
    EXPECT_EQ(get_time_zone_name(), "Asia/Tokyo");
  }
}

}  // namespace
}  // namespace hubwarden
