#include "platform/linux/store_watcher.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>

#include "platform/fake/manual_run_loop.h"
#include "platform/linux/basics_test_support.h"

namespace platform {
namespace {

using namespace std::chrono_literals;
using testing::RealRoot;
using testing::ScratchRoot;

// Counts the changes a session reports while it waits for timeout.
int changes_within(StoreSession& session, std::chrono::milliseconds timeout) {
  int changes = 0;
  EXPECT_EQ(session.run_for(timeout, [&] { ++changes; }), kRunTimedOut);
  return changes;
}

std::unique_ptr<StoreSession> open(std::vector<StoreKey> keys) {
  StoreWatchFailure failure = StoreWatchFailure::kCreateSession;
  auto session = make_linux_store_watcher()->open_session("test", keys, &failure);
  EXPECT_EQ(failure, StoreWatchFailure::kNone);
  return session;
}

TEST(LinuxStoreWatcher, NameFilesReplacedOrWrittenAreOneChangeEachAndOthersAreNot) {
  ScratchRoot root;
  root.mkdir("/etc/avahi");
  root.write("/etc/machine-info", "PRETTY_HOSTNAME=\"Front Desk\"\n");
  auto computer = open({StoreKey::kComputerName});
  auto hosts = open({StoreKey::kHostNames});
  ASSERT_TRUE(computer && hosts);

  // An atomic replace (temporary file, rename) touches two names; the
  // watcher must follow the name, not the inode it started with.
  root.write("/etc/machine-info", "PRETTY_HOSTNAME=\"Back Office\"\n");
  root.write("/etc/unrelated", "x");
  EXPECT_EQ(changes_within(*computer, 100ms), 1);
  EXPECT_EQ(changes_within(*hosts, 50ms), 0);

  root.write("/etc/hostname", "back-office\n");
  EXPECT_EQ(changes_within(*hosts, 50ms), 1);
  root.write("/etc/avahi/avahi-daemon.conf", "[server]\nhost-name=back-office\n");
  EXPECT_EQ(changes_within(*hosts, 50ms), 1);
  EXPECT_EQ(changes_within(*computer, 50ms), 0);

  ::unlink(root.path("/etc/machine-info").c_str());
  EXPECT_EQ(changes_within(*computer, 50ms), 1);
}

TEST(LinuxStoreWatcher, WaitsTheWholeTimeoutAndCopesWithMissingFolders) {
  ScratchRoot root;  // no /etc at all
  auto nothing = open({StoreKey::kComputerName});
  ASSERT_TRUE(nothing);
  int changes = 0;
  EXPECT_EQ(nothing->run_for(1s, [&] { ++changes; }), kRunFinished);
  ManualRunLoop loop;
  EXPECT_FALSE(nothing->schedule(loop, [] {}));

  root.mkdir("/etc");
  auto computer = open({StoreKey::kComputerName});
  auto start = std::chrono::steady_clock::now();
  root.write("/etc/machine-info", "PRETTY_HOSTNAME=a\n");
  EXPECT_EQ(changes_within(*computer, 150ms), 1);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 150ms);
}

TEST(LinuxStoreWatcher, ScheduledSessionReportsOnTheLoopUntilDestroyed) {
  ScratchRoot root;
  root.mkdir("/etc");
  ManualRunLoop loop;
  auto computer = open({StoreKey::kComputerName});
  int changes = 0;
  ASSERT_TRUE(computer->schedule(loop, [&] { ++changes; }));
  EXPECT_FALSE(computer->schedule(loop, [] {}));

  root.write("/etc/machine-info", "PRETTY_HOSTNAME=a\n");
  loop.poll_fds(1s);
  EXPECT_EQ(changes, 1);
  root.write("/etc/hostname", "b\n");
  loop.poll_fds(50ms);
  EXPECT_EQ(changes, 1);

  computer.reset();
  root.write("/etc/machine-info", "PRETTY_HOSTNAME=c\n");
  EXPECT_EQ(loop.poll_fds(50ms), 0);
  EXPECT_EQ(changes, 1);
}

// Runs body in a forked child inside new namespaces, so that links,
// addresses and host names it changes are its own. body returns "" on
// success or what went wrong; the parent turns that into the test result.
void in_namespaces(int flags, const std::function<std::string()>& body) {
  int pipe_fds[2];
  ASSERT_EQ(::pipe(pipe_fds), 0);
  pid_t pid = ::fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    ::close(pipe_fds[0]);
    std::string result = ::unshare(flags) == 0 ? body() : "SKIP: unshare is not permitted here";
    (void)!::write(pipe_fds[1], result.data(), result.size());
    ::_exit(0);
  }
  ::close(pipe_fds[1]);
  std::string result;
  char buffer[512];
  for (ssize_t n; (n = ::read(pipe_fds[0], buffer, sizeof buffer)) > 0;) result.append(buffer, n);
  ::close(pipe_fds[0]);
  int status = 0;
  ::waitpid(pid, &status, 0);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;
  if (result.rfind("SKIP: ", 0) == 0) GTEST_SKIP() << result.substr(6);
  EXPECT_EQ(result, "");
}

int run(const std::string& command) { return ::system((command + " >/dev/null 2>&1").c_str()); }

TEST(LinuxStoreWatcher, AddressesAndLinksInANamespaceOfOurOwn) {
  in_namespaces(CLONE_NEWNET, []() -> std::string {
    ScratchRoot root;
    ManualRunLoop loop;  // outlives the sessions scheduled on it
    int scheduled_changes = 0;
    auto ipv4 = make_linux_store_watcher()->open_session("test", {StoreKey::kIPv4Entities}, nullptr);
    auto ipv6 = make_linux_store_watcher()->open_session("test", {StoreKey::kIPv6Entities}, nullptr);
    auto names = make_linux_store_watcher()->open_session("test", {StoreKey::kComputerName}, nullptr);
    if (!ipv4 || !ipv6 || !names) return "no session";
    // A dummy link where the kernel has them, else one end of a veth pair.
    if (run("ip link set lo up") != 0 ||
        (run("ip link add d0 type dummy") != 0 && run("ip link add d0 type veth peer name d1") != 0))
      return "SKIP: cannot make a link";
    if (run("ip addr add 10.9.8.7/24 dev d0") != 0 || run("ip link set d0 up") != 0) return "ip failed";

    // Everything above happened before the wait: one burst, one change.
    int changes = 0;
    ipv4->run_for(100ms, [&] { ++changes; });
    if (changes != 1) return "IPv4 session saw " + std::to_string(changes) + " changes of the burst";
    changes = 0;
    names->run_for(20ms, [&] { ++changes; });
    if (changes != 0) return "a name session saw an address change";

    ipv6->run_for(20ms, [] {});  // the link events
    if (run("ip -6 addr add fd00::7/64 dev d0 nodad") != 0) return "ip -6 failed";
    changes = 0;
    ipv6->run_for(100ms, [&] { ++changes; });
    if (changes != 1) return "IPv6 session saw " + std::to_string(changes) + " changes";

    if (!ipv4->schedule(loop, [&] { ++scheduled_changes; })) return "cannot schedule";
    run("ip addr del 10.9.8.7/24 dev d0");
    loop.poll_fds(1s);
    if (scheduled_changes != 1) return "scheduled IPv4 session saw " + std::to_string(scheduled_changes) + " changes";
    return "";
  });
}

TEST(LinuxStoreWatcher, KernelHostNameAtTheRealRootOnly) {
  in_namespaces(CLONE_NEWUTS, []() -> std::string {
    std::unique_ptr<StoreSession> sandboxed;
    {
      ScratchRoot root;
      sandboxed = make_linux_store_watcher()->open_session("test", {StoreKey::kHostNames}, nullptr);
    }
    RealRoot real;
    auto hosts = make_linux_store_watcher()->open_session("test", {StoreKey::kHostNames}, nullptr);
    if (!hosts) return "no session";
    const char name[] = "watched-rename";
    if (::sethostname(name, sizeof name - 1) != 0) return "SKIP: sethostname is not permitted";
    int changes = 0;
    hosts->run_for(100ms, [&] { ++changes; });
    if (changes != 1) return "saw " + std::to_string(changes) + " host name changes";
    changes = 0;
    sandboxed->run_for(20ms, [&] { ++changes; });
    if (changes != 0) return "a sandboxed session saw the machine's rename";
    return "";
  });
}

}  // namespace
}  // namespace platform
