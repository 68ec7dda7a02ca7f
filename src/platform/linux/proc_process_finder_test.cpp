#include "platform/linux/proc_process_finder.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

#include "platform/linux/basics_test_support.h"

namespace platform {
namespace {

using testing::ScratchDir;

// A process entry: comm, a stat line in state, and an exe link to target.
void add_process(const ScratchDir& proc, long pid, const std::string& comm, char state, const std::string& exe) {
  std::string dir = "/" + std::to_string(pid);
  proc.write(dir + "/comm", comm + "\n");
  proc.write(dir + "/stat", std::to_string(pid) + " (" + comm + ") " + state + " 1 1 1\n");
  if (!exe.empty()) proc.link(dir + "/exe", exe);
}

// Only the program itself matches: not init, not the host, not a zombie,
// not a process that shares the command name but runs another file, not
// one that runs a file of that name under another command name; of the
// real matches the lowest id wins, and a replaced executable still counts.
TEST(ProcProcessFinderTest, OnlyTheProgramItselfIsFound) {
  ScratchDir proc;
  add_process(proc, 1, "sentryd", 'S', "/usr/sbin/sentryd");
  add_process(proc, ::getpid(), "sentryd", 'S', "/usr/sbin/sentryd");
  add_process(proc, 40, "sentryd", 'Z', "");
  add_process(proc, 50, "sentryd", 'S', "/usr/bin/python3");
  add_process(proc, 60, "bash", 'S', "/usr/sbin/sentryd");
  add_process(proc, 70, "sentryd-old", 'S', "/usr/sbin/sentryd-old");
  add_process(proc, 20, "sentry", 'S', "/usr/sbin/sentry");
  std::unique_ptr<ProcessFinder> finder = make_proc_process_finder(proc.dir());
  EXPECT_EQ(finder->pid_by_name("sentryd"), std::nullopt);

  add_process(proc, 900, "sentryd", 'S', "/usr/sbin/sentryd (deleted)");
  add_process(proc, 800, "sentryd", 'S', "/usr/sbin/sentryd");
  EXPECT_EQ(finder->pid_by_name("sentryd"), 800);
  EXPECT_EQ(finder->pid_by_name("sentry"), 20);

  // Names that cannot be a program's file name never match anything.
  for (const std::string& bad : {std::string(), std::string("/usr/sbin/sentryd"), std::string("sentryd\0", 8)})
    EXPECT_EQ(finder->pid_by_name(bad), std::nullopt) << bad;

  // A command name keeps 15 bytes; the file name must match whole.
  add_process(proc, 30, "a-very-long-pro", 'S', "/usr/bin/a-very-long-program");
  EXPECT_EQ(finder->pid_by_name("a-very-long-program"), 30);
  EXPECT_EQ(finder->pid_by_name("a-very-long-pro"), std::nullopt);
}

// The machine's own process table: a program this test starts is found by
// its name, and no longer once it has gone.
TEST(ProcProcessFinderTest, FindsARealProgramByItsName) {
  ScratchDir dir;
  std::string program = dir.path("/hwfinder-probe");
  std::error_code ec;
  std::filesystem::copy_file("/bin/sleep", program, ec);
  ASSERT_FALSE(ec) << ec.message();
  std::filesystem::permissions(program, std::filesystem::perms::owner_all);

  std::unique_ptr<ProcessFinder> finder = make_proc_process_finder();
  ASSERT_EQ(finder->pid_by_name("hwfinder-probe"), std::nullopt);
  pid_t child = ::fork();
  if (child == 0) {
    ::execl(program.c_str(), "hwfinder-probe", "30", static_cast<char*>(nullptr));
    ::_exit(127);
  }
  ASSERT_GT(child, 0);
  std::optional<int> found;
  for (int i = 0; i < 200 && !found; ++i) {
    found = finder->pid_by_name("hwfinder-probe");
    if (!found) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_EQ(found, child);
  ::kill(child, SIGKILL);
  int status;
  ::waitpid(child, &status, 0);
  EXPECT_EQ(finder->pid_by_name("hwfinder-probe"), std::nullopt);
}

}  // namespace
}  // namespace platform
