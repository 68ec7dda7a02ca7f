// The tools table as the tool runner applies it, and the detached launch of
// a long job.
#include "platform/linux/tool_map.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "platform/file_util.h"
#include "platform/linux/basics.h"
#include "platform/linux/basics_test_support.h"
#include "platform/linux/job_map.h"
#include "plist/codec.h"

namespace platform {
namespace {

using testing::ScratchRoot;

void write_tool(const ScratchRoot& root, const std::string& path, const std::string& script) {
  root.write(path, "#!/bin/sh\n" + script);
  ASSERT_EQ(::chmod(root.path(path).c_str(), 0755), 0);
}

std::string tools_config(const std::string& entries) {
  return "<plist version=\"1.0\"><dict><key>tools</key><dict>" + entries + "</dict></dict></plist>";
}

TEST(ToolMap, MappedToolsRunInsideTheSandboxAndAnEmptyArrayUnmaps) {
  // What the shipped file maps is what the binary falls back on.
  std::optional<std::string> shipped = read_file(testing::shipped_host_config_path());
  ASSERT_TRUE(shipped);
  plist::Parsed parsed = plist::parse_xml(*shipped);
  ASSERT_TRUE(parsed.ok() && parsed.value.as_dict());
  ToolMap from_file;
  std::string error;
  ASSERT_TRUE(apply_tool_config(*parsed.value.as_dict(), &from_file, &error)) << error;
  EXPECT_EQ(from_file.tools, default_tool_map().tools);

  ScratchRoot root;
  write_tool(root, "/opt/updater", "echo mapped \"$@\"\n");
  write_tool(root, "/usr/sbin/softwareupdate", "echo itself \"$@\"\n");
  root.write(kShippedHostConfigPath,
             tools_config("<key>/usr/sbin/softwareupdate</key>"
                          "<array><string>/opt/updater</string><string>--lead</string></array>"
                          "<key>/sbin/reboot</key>"
                          "<array><string>/usr/bin/systemctl</string><string>reboot</string></array>"));
  {
    auto tasks = make_process_tasks();
    TaskResult r = tasks->run("/usr/sbin/softwareupdate", {"softwareupdate", "-l", "-- ;$(x)"});
    EXPECT_EQ(r.out, "mapped --lead -l -- ;$(x)\n");
    EXPECT_TRUE(tasks->has_tool("/usr/sbin/softwareupdate"));
    // Mapped to the machine's systemctl, which the sandbox lacks: nothing
    // runs, and the tool counts as absent.
    EXPECT_FALSE(tasks->run("/sbin/reboot", {}).launched);
    EXPECT_FALSE(tasks->has_tool("/sbin/reboot"));
    EXPECT_FALSE(tasks->spawn_detached("/sbin/reboot", {"reboot"}));
  }

  // The administrator's empty array turns the shipped mapping off.
  root.write(kHostConfigPath, tools_config("<key>/usr/sbin/softwareupdate</key><array/>"));
  EXPECT_EQ(make_process_tasks()->run("/usr/sbin/softwareupdate", {"softwareupdate", "-l"}).out, "itself -l\n");

  // A malformed table is skipped whole; the shipped mapping stays.
  root.write(kHostConfigPath, tools_config("<key>/usr/sbin/softwareupdate</key><array/>"
                                           "<key>/sbin/reboot</key><array><string>systemctl</string></array>"));
  EXPECT_EQ(make_process_tasks()->run("/usr/sbin/softwareupdate", {"softwareupdate"}).out, "mapped --lead\n");

  // Without any file a sandbox has no defaults: its own stand-in runs.
  ::unlink(root.path(kHostConfigPath).c_str());
  ::unlink(root.path(kShippedHostConfigPath).c_str());
  write_tool(root, "/sbin/reboot", "echo stand-in\n");
  EXPECT_EQ(make_process_tasks()->run("/sbin/reboot", {}).out, "stand-in\n");
}

TEST(ToolMap, DetachedLaunchLeavesNoZombieNoDescriptorsAndNoEnvironment) {
  ScratchRoot root;
  std::string report = root.path("/report");
  write_tool(root, "/usr/sbin/softwareupdate",
             "{ echo $$; cat /proc/$$/environ | wc -c; ls -l /proc/$$/fd; echo \"$@\"; } > " + report + ".tmp\nmv " +
                 report + ".tmp " + report + "\n");
  auto tasks = make_process_tasks();
  // A descriptor of ours without close-on-exec must not reach the job.
  int leaked = ::open(root.path("/report-marker").c_str(), O_CREAT | O_WRONLY, 0600);
  ASSERT_GE(leaked, 0);
  ::setenv("HUBWARDEN_TEST_SECRET", "1", 1);
  DetachedLaunch launch = tasks->launch_detached("/usr/sbin/softwareupdate", {"softwareupdate", "-q", "-l"});
  ::close(leaked);
  ::unsetenv("HUBWARDEN_TEST_SECRET");
  ASSERT_GT(launch.pid, 0);
  EXPECT_EQ(launch.fork_errno, 0);
  EXPECT_EQ(launch.daemon_errno, 0);
  int status = 0;
  EXPECT_TRUE(::waitpid(-1, &status, WNOHANG) < 0 && errno == ECHILD) << "the forked process was reaped";

  std::optional<std::string> text;
  for (int i = 0; i < 100 && !(text = read_file(report)); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  ASSERT_TRUE(text);
  int job_pid = 0, environment_bytes = -1;
  ASSERT_EQ(std::sscanf(text->c_str(), "%d %d", &job_pid, &environment_bytes), 2) << *text;
  EXPECT_NE(job_pid, launch.pid);  // daemon(3) forked the job off the reaped process
  EXPECT_EQ(environment_bytes, 0);
  EXPECT_EQ(text->find("report-marker"), std::string::npos) << *text;
  EXPECT_EQ(text->find("/dev/null"), std::string::npos) << "standard streams are closed too: " << *text;
  EXPECT_NE(text->find("\n-q -l\n"), std::string::npos) << *text;

  // A tool the sandbox does not have still forks; the job just never runs.
  launch = tasks->launch_detached("/usr/sbin/missing", {"missing"});
  EXPECT_GT(launch.pid, 0);
  EXPECT_EQ(launch.daemon_errno, 0);
  EXPECT_FALSE(tasks->has_tool("/usr/sbin/missing"));
}

}  // namespace
}  // namespace platform
