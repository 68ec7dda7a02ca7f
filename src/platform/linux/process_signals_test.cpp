#include "platform/linux/process_signals.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "platform/file_util.h"

namespace platform {
namespace {

namespace fs = std::filesystem;

// A child that waits to be signalled; killed and reaped at the end whatever
// the test did.
class Child {
 public:
  Child() : pid_(::fork()) {
    if (pid_ == 0) {
      for (;;) ::pause();
    }
  }
  ~Child() {
    if (pid_ > 0 && !reaped_) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
  }
  pid_t pid() const { return pid_; }
  // Not ended (checked once, after a moment for a signal to land).
  bool running() {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return ::waitpid(pid_, nullptr, WNOHANG) == 0;
  }
  // The signal the child died of, waiting at most five seconds; 0 if it
  // still runs.
  int death_signal() {
    for (int i = 0; i < 500; ++i) {
      int status = 0;
      if (::waitpid(pid_, &status, WNOHANG) == pid_) {
        reaped_ = true;
        return WIFSIGNALED(status) ? WTERMSIG(status) : -1;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return 0;
  }

 private:
  pid_t pid_;
  bool reaped_ = false;
};

// A process outside this test's tree: a child's child whose parent has
// exited, so that it now hangs from init (or a subreaper). Killed at the
// end by the test itself, never through the service under test.
class Orphan {
 public:
  Orphan() {
    int fds[2];
    if (::pipe(fds) != 0) return;
    pid_t middle = ::fork();
    if (middle == 0) {
      pid_t orphan = ::fork();
      if (orphan == 0) {
        for (;;) ::pause();
      }
      (void)!::write(fds[1], &orphan, sizeof(orphan));
      ::_exit(0);
    }
    ::close(fds[1]);
    if (::read(fds[0], &pid_, sizeof(pid_)) != sizeof(pid_)) pid_ = -1;
    ::close(fds[0]);
    ::waitpid(middle, nullptr, 0);
  }
  ~Orphan() {
    if (pid_ > 0) ::kill(pid_, SIGKILL);
  }
  pid_t pid() const { return pid_; }
  // Still there and not a zombie.
  bool alive() const {
    std::optional<std::string> stat = read_file("/proc/" + std::to_string(pid_) + "/stat");
    if (!stat) return false;
    size_t close = stat->rfind(')');
    return close != std::string::npos && close + 2 < stat->size() && (*stat)[close + 2] != 'Z';
  }

 private:
  pid_t pid_ = -1;
};

// Probes use signal 0, so that a broken rule sends nothing to the
// processes it should have spared.
TEST(ProcessSignalsTest, NeverTheHostItsParentOrProcessGroups) {
  std::unique_ptr<ProcessSignals> real = make_linux_process_signals();
  std::unique_ptr<ProcessSignals> sandbox = make_sandbox_process_signals();
  for (ProcessSignals* signals : {real.get(), sandbox.get()}) {
    for (pid_t pid : {::getpid(), ::getppid(), pid_t{1}, pid_t{0}, pid_t{-1}, -::getpgrp()})
      EXPECT_EQ(signals->send(pid, 0), EPERM) << pid;
    EXPECT_EQ(signals->send(4194304 + 7, 0), ESRCH);  // beyond any pid the kernel hands out
  }
}

TEST(ProcessSignalsTest, RealRootSignalsAnyOtherProcess) {
  auto signals = make_linux_process_signals();
  Child child;
  ASSERT_GT(child.pid(), 0);
  EXPECT_EQ(signals->send(child.pid(), SIGTERM), 0);
  EXPECT_EQ(child.death_signal(), SIGTERM);

  Orphan outside;
  ASSERT_GT(outside.pid(), 0);
  EXPECT_EQ(signals->send(outside.pid(), 0), 0);
  EXPECT_EQ(signals->send(outside.pid(), 12345), EINVAL);
}

TEST(ProcessSignalsTest, SandboxSignalsOnlyItsOwnTree) {
  auto signals = make_sandbox_process_signals();
  Child child;
  ASSERT_GT(child.pid(), 0);

  // A grandchild, through a child that stays.
  int fds[2];
  ASSERT_EQ(::pipe(fds), 0);
  pid_t middle = ::fork();
  ASSERT_GE(middle, 0);
  if (middle == 0) {
    pid_t grandchild = ::fork();
    if (grandchild == 0) {
      for (;;) ::pause();
    }
    (void)!::write(fds[1], &grandchild, sizeof(grandchild));
    ::waitpid(grandchild, nullptr, 0);
    ::_exit(0);
  }
  ::close(fds[1]);
  pid_t grandchild = -1;
  ASSERT_EQ(::read(fds[0], &grandchild, sizeof(grandchild)), static_cast<ssize_t>(sizeof(grandchild)));
  ::close(fds[0]);
  EXPECT_EQ(signals->send(grandchild, SIGTERM), 0);
  int status = 0;
  EXPECT_EQ(::waitpid(middle, &status, 0), middle);  // the middle child ends when its child did

  EXPECT_EQ(signals->send(child.pid(), SIGTERM), 0);
  EXPECT_EQ(child.death_signal(), SIGTERM);

  // Once its parent is gone a process is no longer of the tree, unless
  // this test is the namespace's init and so takes the orphans in.
  if (::getpid() == 1) GTEST_SKIP() << "orphans are this process's own children here";
  Orphan outside;
  ASSERT_GT(outside.pid(), 0);
  ASSERT_TRUE(outside.alive());
  EXPECT_EQ(signals->send(outside.pid(), 0), EPERM);
  EXPECT_EQ(signals->send(outside.pid(), SIGTERM), EPERM);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_TRUE(outside.alive());
}

// When the parent links cannot be followed, the answer is no.
TEST(ProcessSignalsTest, SandboxRefusesWhatItCannotTrace) {
  std::string tmpl = (fs::temp_directory_path() / "signals-test-XXXXXX").string();
  std::string dir = ::mkdtemp(tmpl.data());
  Child child;
  ASSERT_GT(child.pid(), 0);
  std::string mine = std::to_string(::getpid());
  std::string theirs = std::to_string(child.pid());
  auto signals = make_sandbox_process_signals(dir);

  EXPECT_EQ(signals->send(child.pid(), 0), EPERM);  // no stat file at all
  const std::string bad_lines[] = {"", "7 (x", "7 (x) S", "7 (x) S abc 1", "7 (x) S -" + mine};
  for (const std::string& line : bad_lines) {
    ASSERT_TRUE(write_file_atomically(dir + "/" + theirs + "/stat", line));
    EXPECT_EQ(signals->send(child.pid(), 0), EPERM) << line;
  }
  // The command name may hold ") S " itself; the last ')' ends it.
  ASSERT_TRUE(write_file_atomically(dir + "/" + theirs + "/stat", theirs + " (a) S 1 (b) S " + mine + " 1 1\n"));
  EXPECT_EQ(signals->send(child.pid(), 0), 0);
  // A loop of parent links ends in a refusal rather than a hang.
  ASSERT_TRUE(write_file_atomically(dir + "/" + theirs + "/stat", theirs + " (x) S 424242 1\n"));
  ASSERT_TRUE(write_file_atomically(dir + "/424242/stat", "424242 (y) S " + theirs + " 1\n"));
  EXPECT_EQ(signals->send(child.pid(), 0), EPERM);
  EXPECT_TRUE(child.running());

  std::error_code ec;
  fs::remove_all(dir, ec);
}

}  // namespace
}  // namespace platform
