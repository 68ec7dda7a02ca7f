// Enabling, disabling and inspecting units never reaches past the sandbox
// root, whatever the links inside it say.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <set>

#include "platform/linux/unit_files.h"
#include "platform/linux/unit_sandbox_test_support.h"

namespace platform {
namespace {

namespace fs = std::filesystem;

TEST(UnitFilesConfined, LinkDirectoriesLeadingOutsideTheRootAreNeverWritten) {
  platform::testing::ScratchDir outside_root;  // a folder outside the sandbox root
  const std::string& outside = outside_root.dir();
  // What the machine's own *.wants/ folder might hold; it must survive.
  fs::create_symlink("/lib/systemd/system/ssh.service", outside + "/ssh.service");
  {
    testing::UnitSandbox root;
    root.write("/lib/systemd/system/ssh.service",
               "[Service]\nExecStart=/usr/sbin/sshd -D\n\n"
               "[Install]\nWantedBy=multi-user.target graphical.target\n");
    // One link by absolute path, one climbing with "..": inside the root
    // both name folders that do not exist.
    root.link("/etc/systemd/system/multi-user.target.wants", outside);
    root.link("/etc/systemd/system/graphical.target.wants", "../../../../../../../../../.." + outside);

    EXPECT_EQ(unit_file_state("ssh.service"), UnitFileState::kDisabled);
    EXPECT_NE(enable_unit_file("ssh.service"), 0);
    EXPECT_EQ(platform::testing::entry_names(outside), std::set<std::string>{"ssh.service"});
    EXPECT_EQ(disable_unit_file("ssh.service"), 0);
    EXPECT_EQ(platform::testing::entry_names(outside), std::set<std::string>{"ssh.service"});

    // With real folders in their place the same unit enables and disables.
    fs::remove(root.path("/etc/systemd/system/multi-user.target.wants"));
    fs::remove(root.path("/etc/systemd/system/graphical.target.wants"));
    EXPECT_EQ(enable_unit_file("ssh.service"), 0);
    EXPECT_EQ(root.link_target("/etc/systemd/system/multi-user.target.wants/ssh.service"),
              "/lib/systemd/system/ssh.service");
    EXPECT_EQ(unit_file_state("ssh.service"), UnitFileState::kEnabled);
    EXPECT_EQ(disable_unit_file("ssh.service"), 0);
    EXPECT_FALSE(root.exists("/etc/systemd/system/graphical.target.wants/ssh.service"));
    EXPECT_EQ(platform::testing::entry_names(outside), std::set<std::string>{"ssh.service"});
  }
}

}  // namespace
}  // namespace platform
