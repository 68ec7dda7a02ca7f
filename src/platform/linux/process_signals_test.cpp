#include "platform/linux/process_signals.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "platform/file_util.h"
#include "platform/linux/basics_test_support.h"

namespace platform {
namespace {

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

// A process forked by a child of ours. Orphaned, its parent exits at once so
// that it hangs from init (or a subreaper), outside this test's tree;
// otherwise the parent waits for it. Killed at the end by the test itself,
// never through the service under test.
class Grandchild {
 public:
  explicit Grandchild(bool orphaned) {
    int fds[2];
    if (::pipe(fds) != 0) return;
    middle_ = ::fork();
    if (middle_ == 0) {
      pid_t pid = ::fork();
      if (pid == 0) {
        for (;;) ::pause();
      }
      (void)!::write(fds[1], &pid, sizeof(pid));
      if (!orphaned) ::waitpid(pid, nullptr, 0);
      ::_exit(0);
    }
    ::close(fds[1]);
    if (::read(fds[0], &pid_, sizeof(pid_)) != sizeof(pid_)) pid_ = -1;
    ::close(fds[0]);
    if (orphaned) parent_ended();
  }
  ~Grandchild() {
    if (pid_ > 0 && alive()) ::kill(pid_, SIGKILL);
    parent_ended();
  }
  pid_t pid() const { return pid_; }
  // Waits for the middle process, which ends once its child has.
  bool parent_ended() {
    bool ended = middle_ > 0 && ::waitpid(middle_, nullptr, 0) == middle_;
    middle_ = -1;
    return ended;
  }
  // Still there and not a zombie.
  bool alive() const {
    std::optional<std::string> stat = read_file("/proc/" + std::to_string(pid_) + "/stat");
    if (!stat) return false;
    size_t close = stat->rfind(')');
    return close != std::string::npos && close + 2 < stat->size() && (*stat)[close + 2] != 'Z';
  }

 private:
  pid_t middle_ = -1;
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

  Grandchild outside(/*orphaned=*/true);
  ASSERT_GT(outside.pid(), 0);
  EXPECT_EQ(signals->send(outside.pid(), 0), 0);
  EXPECT_EQ(signals->send(outside.pid(), 12345), EINVAL);
}

TEST(ProcessSignalsTest, SandboxSignalsOnlyItsOwnTree) {
  auto signals = make_sandbox_process_signals();
  Child child;
  ASSERT_GT(child.pid(), 0);

  // A grandchild, through a child that stays until it ends.
  Grandchild grandchild(/*orphaned=*/false);
  ASSERT_GT(grandchild.pid(), 0);
  EXPECT_EQ(signals->send(grandchild.pid(), SIGTERM), 0);
  EXPECT_TRUE(grandchild.parent_ended());

  EXPECT_EQ(signals->send(child.pid(), SIGTERM), 0);
  EXPECT_EQ(child.death_signal(), SIGTERM);

  // Once its parent is gone a process is no longer of the tree, unless
  // this test is the namespace's init and so takes the orphans in.
  if (::getpid() == 1) GTEST_SKIP() << "orphans are this process's own children here";
  Grandchild outside(/*orphaned=*/true);
  ASSERT_GT(outside.pid(), 0);
  ASSERT_TRUE(outside.alive());
  EXPECT_EQ(signals->send(outside.pid(), 0), EPERM);
  EXPECT_EQ(signals->send(outside.pid(), SIGTERM), EPERM);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_TRUE(outside.alive());
}

// When the parent links cannot be followed, the answer is no.
TEST(ProcessSignalsTest, SandboxRefusesWhatItCannotTrace) {
  testing::ScratchDir scratch;
  Child child;
  ASSERT_GT(child.pid(), 0);
  std::string mine = std::to_string(::getpid());
  std::string theirs = std::to_string(child.pid());
  auto signals = make_sandbox_process_signals(scratch.dir());

  EXPECT_EQ(signals->send(child.pid(), 0), EPERM);  // no stat file at all
  const std::string bad_lines[] = {"", "7 (x", "7 (x) S", "7 (x) S abc 1", "7 (x) S -" + mine};
  for (const std::string& line : bad_lines) {
    scratch.write("/" + theirs + "/stat", line);
    EXPECT_EQ(signals->send(child.pid(), 0), EPERM) << line;
  }
  // The command name may hold ") S " itself; the last ')' ends it.
  scratch.write("/" + theirs + "/stat", theirs + " (a) S 1 (b) S " + mine + " 1 1\n");
  EXPECT_EQ(signals->send(child.pid(), 0), 0);
  // A loop of parent links ends in a refusal rather than a hang.
  scratch.write("/" + theirs + "/stat", theirs + " (x) S 424242 1\n");
  scratch.write("/424242/stat", "424242 (y) S " + theirs + " 1\n");
  EXPECT_EQ(signals->send(child.pid(), 0), EPERM);
  EXPECT_TRUE(child.running());
}

}  // namespace
}  // namespace platform
