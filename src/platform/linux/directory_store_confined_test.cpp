// A records folder linked out of the sandbox root is never listed, read,
// written or pruned.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>

#include "platform/file_util.h"
#include "platform/linux/basics_test_support.h"
#include "platform/linux/directory_store.h"
#include "plist/codec.h"

namespace platform {
namespace {

namespace fs = std::filesystem;

TEST(DirectoryStoreConfined, RecordsFolderLinkedOutsideTheRootStaysUntouched) {
  platform::testing::ScratchDir outside_root;  // a folder outside the sandbox root
  const std::string& outside = outside_root.dir();
  plist::Dict wheel{{"dsAttrTypeStandard:RecordName", plist::Array{plist::Value("wheelx")}}};
  const std::string record = plist::write_xml(plist::Value(std::move(wheel)));
  ASSERT_TRUE(write_file_atomically(outside + "/wheelx.plist", record));
  {
    testing::ScratchRoot sandbox;
    fs::create_directories(sandbox.path("/var/db/hubwarden/directory"));
    fs::create_symlink(outside, sandbox.path("/var/db/hubwarden/directory/groups"));
    std::unique_ptr<Directory> dir = make_directory_store();
    const std::string node = "/Local/Default";

    EXPECT_TRUE(dir->groups_with_prefix(node, "wh", 0).empty());
    plist::Dict out;
    EXPECT_EQ(dir->get_group_record(node, "wheelx", &out), kDirectoryRecordNotFound);
    EXPECT_NE(dir->set_group_record(node, "wheelx", nullptr), kDirectoryOK);
    plist::Dict attrs{{"dsAttrTypeStandard:Comment", "x"}};
    EXPECT_NE(dir->create_group_record(node, "staff", attrs), kDirectoryOK);

    EXPECT_EQ(read_file(outside + "/wheelx.plist"), record);
    EXPECT_FALSE(fs::exists(outside + "/staff.plist"));

    // The link's text, taken from the root, names the sandbox's own records.
    fs::create_directories(sandbox.path(outside));
    ASSERT_EQ(dir->create_group_record(node, "staff", attrs), kDirectoryOK);
    EXPECT_EQ(dir->groups_with_prefix(node, "", 0), std::vector<std::string>{"staff"});
    EXPECT_TRUE(fs::exists(sandbox.path(outside + "/staff.plist")));
  }
  EXPECT_EQ(std::distance(fs::directory_iterator(outside), fs::directory_iterator()), 1);
}

}  // namespace
}  // namespace platform
