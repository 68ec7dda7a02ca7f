// Process evidence for a unit comes from the sandbox's own proc folder, even
// when that folder is a link to somewhere outside the root.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>

#include "platform/linux/unit_processes.h"
#include "platform/linux/unit_sandbox_test_support.h"

namespace platform {
namespace {

namespace fs = std::filesystem;

TEST(UnitProcessesConfined, LinkedProcFolderIsResolvedInsideTheRoot) {
  platform::testing::ScratchDir outside_root;  // a folder outside the sandbox root
  const std::string& outside = outside_root.dir();
  fs::create_directories(outside + "/4242");
  ASSERT_TRUE(write_file_atomically(outside + "/4242/comm", "sshd\n"));
  {
    testing::UnitSandbox root;
    root.link("/proc", outside);
    root.write("/run/sshd.pid", "4242\n");
    UnitFileInfo sshd;
    sshd.exec_program = "/usr/sbin/sshd";
    sshd.pid_file = "/run/sshd.pid";
    EXPECT_FALSE(unit_process_running(sshd, ProcessSnapshot::take()));

    // Written through the same link, the process lands in the sandbox.
    fs::create_directories(root.path(outside));
    root.add_process(4242, "sshd");
    EXPECT_TRUE(fs::exists(root.path(outside + "/4242/stat")));
    EXPECT_TRUE(unit_process_running(sshd, ProcessSnapshot::take()));
    sshd.pid_file.clear();
    EXPECT_TRUE(unit_process_running(sshd, ProcessSnapshot::take()));
  }
}

}  // namespace
}  // namespace platform
