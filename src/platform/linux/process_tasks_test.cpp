#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "platform/file_util.h"
#include "platform/linux/basics.h"
#include "platform/linux/basics_test_support.h"

namespace platform {
namespace {

using testing::ScratchRoot;
using Seconds = std::chrono::duration<double>;

double elapsed_since(std::chrono::steady_clock::time_point start) {
  return Seconds(std::chrono::steady_clock::now() - start).count();
}

// No child of ours is left unreaped.
bool no_children_left() {
  int status = 0;
  return ::waitpid(-1, &status, WNOHANG) < 0 && errno == ECHILD;
}

TEST(ProcessTasksTest, CapturesBothStreamsAndHowTheToolEnded) {
  auto tasks = make_process_tasks();
  TaskResult r = tasks->run("/bin/sh", {"sh", "-c", "echo out; echo err >&2; exit 3"});
  EXPECT_TRUE(r.launched);
  EXPECT_FALSE(r.timed_out);
  EXPECT_EQ(r.exit_status, 3);
  EXPECT_EQ(r.out, "out\n");
  EXPECT_EQ(r.err, "err\n");

  // Killed by a signal: 128 + its number.
  r = tasks->run("/bin/sh", {"sh", "-c", "kill -TERM $$"});
  EXPECT_EQ(r.exit_status, 128 + SIGTERM);

  // An empty argument list still gives the tool a name.
  r = tasks->run("/bin/echo", {});
  EXPECT_EQ(r.exit_status, 0);
  EXPECT_EQ(r.out, "\n");

  // Missing programs and directories are not launched.
  r = tasks->run("/nonexistent/tool", {"tool"}, "input", 1);
  EXPECT_FALSE(r.launched);
  EXPECT_FALSE(r.timed_out);
  EXPECT_TRUE(r.out.empty());
  EXPECT_FALSE(tasks->spawn_detached("/nonexistent/tool", {"tool"}));
  EXPECT_FALSE(tasks->run("/tmp", {"tmp"}).launched);
  EXPECT_TRUE(no_children_left());

  // A tool that leaves a child holding its output still returns when it exits.
  auto start = std::chrono::steady_clock::now();
  r = tasks->run("/bin/sh", {"sh", "-c", "echo started; sleep 3 & exit 0"});
  EXPECT_EQ(r.exit_status, 0);
  EXPECT_EQ(r.out, "started\n");
  EXPECT_LT(elapsed_since(start), 2.5);
}

TEST(ProcessTasksTest, LargeInputAndOutputDoNotDeadlock) {
  auto tasks = make_process_tasks();
  // Far more than a pipe holds, in both directions at once.
  std::string input;
  for (int i = 0; i < 200000; ++i) input += "line " + std::to_string(i) + "\n";
  TaskResult r = tasks->run("/bin/cat", {"cat"}, input, 30);
  EXPECT_TRUE(r.launched);
  EXPECT_EQ(r.exit_status, 0);
  EXPECT_EQ(r.out.size(), input.size());
  EXPECT_TRUE(r.out == input);

  // A tool that ignores its input and exits must not leave us writing.
  r = tasks->run("/bin/true", {"true"}, input, 30);
  EXPECT_EQ(r.exit_status, 0);
  EXPECT_FALSE(r.timed_out);
}

TEST(ProcessTasksTest, TimeoutKillsTheToolAndWhatItStarted) {
  testing::ScratchDir scratch;
  auto tasks = make_process_tasks();
  auto start = std::chrono::steady_clock::now();
  TaskResult r = tasks->run("/bin/sleep", {"sleep", "5"}, {}, 0.2);
  double took = elapsed_since(start);
  EXPECT_TRUE(r.launched);
  EXPECT_TRUE(r.timed_out);
  EXPECT_EQ(r.exit_status, 128 + SIGKILL);
  EXPECT_LT(took, 3.0);

  // A shell whose background child holds the output pipe: the timeout
  // must still end the call, and the child must die with the shell.
  std::string marker = scratch.path("/survivor");
  start = std::chrono::steady_clock::now();
  r = tasks->run("/bin/sh", {"sh", "-c", "(sleep 1; touch " + marker + ") & sleep 5"}, {}, 0.2);
  EXPECT_TRUE(r.timed_out);
  EXPECT_LT(elapsed_since(start), 3.0);
  std::this_thread::sleep_for(std::chrono::milliseconds(1300));
  EXPECT_FALSE(file_exists(marker));
  EXPECT_TRUE(no_children_left());
}

TEST(ProcessTasksTest, DetachedToolOutlivesTheCallInItsOwnSession) {
  testing::ScratchDir scratch;
  auto tasks = make_process_tasks();
  std::string out = scratch.path("/detached");
  std::optional<int> pid = tasks->spawn_detached(
      "/bin/sh",
      {"sh", "-c", "sleep 0.3; echo $$ $(cut -d' ' -f6 /proc/$$/stat) > " + out + ".tmp && mv " + out + ".tmp " + out});
  ASSERT_TRUE(pid);
  EXPECT_GT(*pid, 0);
  EXPECT_TRUE(no_children_left());  // neither the tool nor the middle process is ours
  EXPECT_FALSE(file_exists(out));   // the call did not wait for the tool

  std::optional<std::string> text;
  for (int i = 0; i < 100 && !(text = read_file(out)); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(50));
  ASSERT_TRUE(text);
  int written_pid = 0, session = 0;
  ASSERT_EQ(std::sscanf(text->c_str(), "%d %d", &written_pid, &session), 2);
  EXPECT_EQ(written_pid, *pid);
  EXPECT_NE(session, ::getsid(0));  // a session apart from ours
}

TEST(ProcessTasksTest, ASandboxRunsOnlyTheToolsInsideIt) {
  ScratchRoot root;
  auto tasks = make_process_tasks();
  // Without a stand-in nothing runs: not the machine's reboot.
  EXPECT_FALSE(tasks->run("/sbin/reboot", {"reboot"}).launched);
  EXPECT_FALSE(tasks->spawn_detached("/sbin/reboot", {"reboot"}));

  root.write("/sbin/reboot", "#!/bin/sh\necho stand-in \"$@\"\n");
  EXPECT_FALSE(tasks->run("/sbin/reboot", {"reboot"}).launched) << "not executable";
  ASSERT_EQ(::chmod(root.path("/sbin/reboot").c_str(), 0755), 0);
  TaskResult r = tasks->run("/sbin/reboot", {"reboot", "now"});
  EXPECT_TRUE(r.launched);
  EXPECT_EQ(r.out, "stand-in now\n");
  // A path already resolved under the root names the same stand-in.
  EXPECT_EQ(tasks->run(root.path("/sbin/reboot"), {"reboot"}).out, "stand-in\n");

  // Links lead to tools inside the root only, however they are written.
  ASSERT_EQ(::symlink("/sbin/reboot", root.path("/sbin/shutdown").c_str()), 0);
  EXPECT_EQ(tasks->run("/sbin/shutdown", {"shutdown"}).out, "stand-in\n");
  ASSERT_TRUE(make_directories(root.path("/usr/sbin")));
  ASSERT_EQ(::symlink("/bin/true", root.path("/usr/sbin/ntpdate").c_str()), 0);
  ASSERT_EQ(::symlink("../../../../../../../../bin/true", root.path("/usr/sbin/klist").c_str()), 0);
  EXPECT_FALSE(tasks->run("/usr/sbin/ntpdate", {"ntpdate"}).launched);
  EXPECT_FALSE(tasks->run("/usr/sbin/klist", {"klist"}).launched);
  EXPECT_FALSE(tasks->run("true", {"true"}).launched) << "a relative tool has no place in the root";
  EXPECT_TRUE(no_children_left());
}

}  // namespace
}  // namespace platform
