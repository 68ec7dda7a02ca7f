// The directory's free group ids: never one a stored group holds, never one
// of the system's groups at the real root.
#include <grp.h>
#include <gtest/gtest.h>

#include "platform/linux/basics_test_support.h"
#include "platform/linux/directory_store.h"

namespace platform {
namespace {

TEST(LegacyGidTest, SkipsStoredAndSystemGroups) {
  {
    testing::ScratchRoot sandbox;
    std::unique_ptr<Directory> dir = make_directory_store();
    auto group_with_gid = [](const char* gid) {
      return plist::Dict{{"dsAttrTypeStandard:PrimaryGroupID", plist::Array{plist::Value(gid)}}};
    };
    ASSERT_EQ(dir->create_group_record("/Local/Default", "first", group_with_gid("1025")), kDirectoryOK);
    ASSERT_EQ(dir->create_group_record("/Local/Default", "third", group_with_gid("1027")), kDirectoryOK);
    EXPECT_EQ(dir->generate_legacy_gid(), 1026u);
    ASSERT_EQ(dir->create_group_record("/Local/Default", "second", group_with_gid("1026")), kDirectoryOK);
    EXPECT_EQ(dir->generate_legacy_gid(), 1028u);
  }
  testing::RealRoot real;
  std::optional<uint32_t> gid = make_directory_store()->generate_legacy_gid();
  ASSERT_TRUE(gid);
  EXPECT_EQ(::getgrgid(*gid), nullptr);
}

}  // namespace
}  // namespace platform
