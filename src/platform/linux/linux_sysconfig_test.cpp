#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "platform/file_util.h"
#include "platform/linux/avahi_host_name.h"
#include "platform/linux/basics.h"
#include "platform/linux/basics_test_support.h"
#include "platform/linux/machine_info.h"
#include "platform/linux/name_services.h"
#include "platform/linux/private_bus_test_support.h"
#include "platform/linux/system_bus.h"
#include "platform/linux/text_files.h"

namespace platform {
namespace {

TEST(MachineInfoTest, PrettyNameReplacedOnceAndReadBack) {
  const std::string text =
      "# set by the installer\nCHASSIS=server\nPRETTY_HOSTNAME=Old\nexport PRETTY_HOSTNAME=\"Older\"\nDEPLOYMENT=lab";
  const std::string edited = machine_info::with_pretty_hostname(text, "New");
  EXPECT_EQ(edited, "# set by the installer\nCHASSIS=server\nPRETTY_HOSTNAME=New\nDEPLOYMENT=lab");
  EXPECT_EQ(machine_info::with_pretty_hostname("CHASSIS=vm", "Hub"), "CHASSIS=vm\nPRETTY_HOSTNAME=Hub\n");
  EXPECT_EQ(machine_info::with_pretty_hostname("", "Hub"), "PRETTY_HOSTNAME=Hub\n");

  for (const std::string name : {"Mary's Server", "a \"quoted\" $HOME `x` \\ end", "Caf\xC3\xA9 #2", "-dash", "x;y"}) {
    std::string file = machine_info::with_pretty_hostname("CHASSIS=vm\n", name);
    EXPECT_EQ(linux_text::shell_variable(file, "PRETTY_HOSTNAME"), name) << file;
    EXPECT_EQ(linux_text::shell_variable(file, "CHASSIS"), "vm");
  }
}

TEST(AvahiConfTest, HostNameSetInServerSectionOnly) {
  const std::string debian_like =
      "[server]\n#host-name=foo\n#domain-name=local\nuse-ipv4=yes\n\n[wide-area]\nhost-name=elsewhere\n";
  EXPECT_EQ(avahi_conf::host_name(debian_like), std::nullopt);
  const std::string added = avahi_conf::with_host_name(debian_like, "hub");
  EXPECT_EQ(added,
            "[server]\nhost-name=hub\n#host-name=foo\n#domain-name=local\nuse-ipv4=yes\n\n[wide-area]\n"
            "host-name=elsewhere\n");
  EXPECT_EQ(avahi_conf::host_name(added), "hub");
  const std::string replaced = avahi_conf::with_host_name(added, "hub2");
  EXPECT_EQ(replaced,
            "[server]\nhost-name=hub2\n#host-name=foo\n#domain-name=local\nuse-ipv4=yes\n\n[wide-area]\n"
            "host-name=elsewhere\n");

  EXPECT_EQ(avahi_conf::with_host_name("", "a"), "[server]\nhost-name=a\n");
  EXPECT_EQ(avahi_conf::with_host_name("[publish]\nx=1", "a"), "[publish]\nx=1\n\n[server]\nhost-name=a\n");
  EXPECT_EQ(avahi_conf::with_host_name("[server]", "a"), "[server]\nhost-name=a\n");
  EXPECT_EQ(avahi_conf::host_name("[server]\n host-name = spaced \n"), "spaced");
}

class LinuxNameStoreTest : public ::testing::Test {
 protected:
  testing::ScratchRoot root_;
  std::unique_ptr<SystemConfiguration> store_ = make_linux_sysconfig();

  std::string contents(const std::string& absolute) { return read_file(root_.path(absolute)).value_or("<none>"); }
};

TEST_F(LinuxNameStoreTest, NamesRoundTripThroughFilesWithoutABus) {
  root_.write("/etc/machine-info", "CHASSIS=server\nPRETTY_HOSTNAME=Old\n");
  root_.write("/etc/avahi/avahi-daemon.conf", "[server]\nuse-ipv6=no\n");
  root_.write("/etc/hostname", "old-box.example.com\n");
  EXPECT_EQ(store_->computer_name(), "Old");
  EXPECT_EQ(store_->local_host_name(), "old-box");  // no Avahi name yet: the host name's first label

  char machine_name[256] = {};
  ASSERT_EQ(::gethostname(machine_name, sizeof machine_name - 1), 0);

  std::unique_ptr<PreferencesSession> session = store_->open_preferences("hubwarden_info");
  ASSERT_NE(session, nullptr);
  ASSERT_TRUE(session->lock());
  ASSERT_TRUE(session->set_computer_name("North \"Wing\""));
  ASSERT_TRUE(session->set_local_host_name("north-wing"));
  ASSERT_TRUE(session->set_host_name("north.example.com"));
  ASSERT_TRUE(session->commit());
  ASSERT_TRUE(session->apply());
  session->unlock();

  EXPECT_EQ(store_->computer_name(), "North \"Wing\"");
  EXPECT_EQ(store_->local_host_name(), "north-wing");
  EXPECT_EQ(contents("/etc/machine-info"), "CHASSIS=server\nPRETTY_HOSTNAME=\"North \\\"Wing\\\"\"\n");
  EXPECT_EQ(contents("/etc/avahi/avahi-daemon.conf"), "[server]\nhost-name=north-wing\nuse-ipv6=no\n");
  EXPECT_EQ(contents("/etc/hostname"), "north.example.com\n");

  char after[256] = {};
  ASSERT_EQ(::gethostname(after, sizeof after - 1), 0);
  EXPECT_STREQ(after, machine_name) << "a sandbox must never rename the machine";
}

TEST_F(LinuxNameStoreTest, FilesAreCreatedWhenMissing) {
  std::unique_ptr<PreferencesSession> session = store_->open_preferences("hubwarden_info");
  ASSERT_TRUE(session->lock());
  ASSERT_TRUE(session->set_computer_name("Hub"));
  ASSERT_TRUE(session->set_local_host_name("hub"));
  ASSERT_TRUE(session->commit());
  EXPECT_EQ(contents("/etc/machine-info"), "PRETTY_HOSTNAME=Hub\n");
  EXPECT_EQ(contents("/etc/avahi/avahi-daemon.conf"), "[server]\nhost-name=hub\n");
}

TEST_F(LinuxNameStoreTest, NamesTheStoreCannotHoldAreRefused) {
  std::unique_ptr<PreferencesSession> session = store_->open_preferences("hubwarden_info");
  ASSERT_TRUE(session->lock());
  EXPECT_FALSE(session->set_computer_name("two\nlines"));
  EXPECT_FALSE(session->set_computer_name(""));
  EXPECT_FALSE(session->set_computer_name("bad\xFF"));
  EXPECT_FALSE(session->set_local_host_name("under_score"));
  EXPECT_FALSE(session->set_local_host_name(std::string(64, 'a')));
  EXPECT_FALSE(session->set_local_host_name("a.b"));
  EXPECT_FALSE(session->set_host_name("-lead.example.com"));
  EXPECT_FALSE(session->set_host_name("a..b"));
  EXPECT_TRUE(session->commit()) << "nothing staged, nothing to fail";
  EXPECT_FALSE(root_.exists("/etc/machine-info"));
}

TEST_F(LinuxNameStoreTest, LockIsExclusiveAndNeededForCommit) {
  std::unique_ptr<PreferencesSession> first = store_->open_preferences("a");
  std::unique_ptr<PreferencesSession> second = store_->open_preferences("b");
  ASSERT_TRUE(second->set_computer_name("Sneaky"));
  EXPECT_FALSE(second->commit()) << "commit without the lock";
  ASSERT_TRUE(first->lock());
  EXPECT_FALSE(second->lock());
  first->unlock();
  EXPECT_TRUE(second->lock());
  second.reset();  // the destructor lets go as well
  EXPECT_TRUE(first->lock());
  EXPECT_FALSE(root_.exists("/etc/machine-info"));
}

TEST_F(LinuxNameStoreTest, FailedWriteLeavesTheOldFileWhole) {
  const std::string old_info = "CHASSIS=server\nPRETTY_HOSTNAME=Old\n";
  root_.write("/etc/machine-info", old_info);
  // A file the store cannot read is never replaced by a guess.
  root_.mkdir("/etc/avahi/avahi-daemon.conf");

  std::unique_ptr<PreferencesSession> session = store_->open_preferences("hubwarden_info");
  ASSERT_TRUE(session->lock());
  ASSERT_TRUE(session->set_local_host_name("hub"));
  EXPECT_FALSE(session->commit());

  // A write that runs out of room: the file size limit cuts the temporary
  // file short, and the rename must not happen.
  ASSERT_TRUE(session->set_computer_name(std::string(60, 'x')));
  struct rlimit saved;
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &saved), 0);
  struct sigaction ignore = {}, previous = {};
  ignore.sa_handler = SIG_IGN;
  ::sigaction(SIGXFSZ, &ignore, &previous);
  struct rlimit small = saved;
  small.rlim_cur = 16;
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
  const bool committed = session->commit();
  ::setrlimit(RLIMIT_FSIZE, &saved);
  ::sigaction(SIGXFSZ, &previous, nullptr);
  EXPECT_FALSE(committed);
  EXPECT_EQ(contents("/etc/machine-info"), old_info);
  EXPECT_EQ(store_->computer_name(), "Old");
}

// A real Avahi daemon on the sandbox's own bus, in network and mount
// namespaces of its own so that it neither sends on the machine's links
// nor touches its /run; it reads the configuration file the store edits.
class ConfinedAvahi {
 public:
  ConfinedAvahi(const testing::ScratchDir& root, const std::string& conf) {
    if (::geteuid() != 0 || ::access("/usr/sbin/avahi-daemon", X_OK) != 0 || ::access("/usr/bin/unshare", X_OK) != 0)
      return;
    const std::string script =
        "set -e; for d in /run/avahi-daemon /etc/avahi/services; do mkdir -p $d; mount -t tmpfs tmpfs $d; done; "
        "exec /usr/sbin/avahi-daemon --no-drop-root --no-chroot --no-rlimits -f " +
        conf + " >/dev/null 2>&1";
    const std::string bus = "DBUS_SYSTEM_BUS_ADDRESS=unix:path=" + root.path(kSystemBusSocketPath);
    pid_ = ::fork();
    if (pid_ == 0) {
      ::putenv(const_cast<char*>(bus.c_str()));
      // Without --fork, unshare and the shell exec into Avahi, which keeps
      // this child's pid: the test stops and reaps the daemon itself.
      ::execl("/usr/bin/unshare", "unshare", "--net", "--mount", "/bin/sh", "-c", script.c_str(),
              static_cast<char*>(nullptr));
      ::_exit(127);
    }
  }
  ~ConfinedAvahi() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGTERM);
    int status;
    ::waitpid(pid_, &status, 0);
  }
  ConfinedAvahi(const ConfinedAvahi&) = delete;
  ConfinedAvahi& operator=(const ConfinedAvahi&) = delete;

  bool started() const { return pid_ > 0; }

 private:
  pid_t pid_ = -1;
};

TEST_F(LinuxNameStoreTest, LocalHostNameReachesARunningAvahi) {
  testing::PrivateSystemBus system_bus(root_);
  if (!system_bus.available()) GTEST_SKIP() << "dbus-daemon is not installed";
  root_.write("/etc/avahi/avahi-daemon.conf",
              "[server]\nhost-name=before\nuse-ipv4=yes\nuse-ipv6=no\nenable-dbus=yes\n"
              "[publish]\npublish-hinfo=no\npublish-workstation=no\n");
  ConfinedAvahi avahi(root_, root_.path("/etc/avahi/avahi-daemon.conf"));
  if (!avahi.started()) GTEST_SKIP() << "needs root, avahi-daemon and unshare";

  SdBusPtr bus = open_system_bus();
  ASSERT_NE(bus, nullptr);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (name_services::avahi_host_name(bus.get()) != "before" && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  ASSERT_EQ(name_services::avahi_host_name(bus.get()), "before") << "avahi-daemon did not come up on the bus";
  EXPECT_EQ(store_->local_host_name(), "before");

  std::unique_ptr<PreferencesSession> session = store_->open_preferences("hubwarden_info");
  ASSERT_TRUE(session->lock());
  ASSERT_TRUE(session->set_local_host_name("after"));
  ASSERT_TRUE(session->set_computer_name("After Hours"));
  ASSERT_TRUE(session->commit());
  ASSERT_TRUE(session->apply());
  EXPECT_TRUE(session->apply()) << "asking Avahi for the name it has is no failure";
  session->unlock();

  EXPECT_EQ(name_services::avahi_host_name(bus.get()), "after");
  EXPECT_EQ(store_->local_host_name(), "after");
  EXPECT_EQ(avahi_conf::host_name(contents("/etc/avahi/avahi-daemon.conf")), "after");
  // No hostnamed on this bus: the pretty name goes to the file.
  EXPECT_EQ(contents("/etc/machine-info"), "PRETTY_HOSTNAME=\"After Hours\"\n");
}

}  // namespace
}  // namespace platform
