// The Linux service manager: jobs through unit files in a sandbox root, the
// process-table view of activity, and a smoke test of the D-Bus path where
// systemd runs.
#include "platform/linux/systemd_service_manager.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <systemd/sd-daemon.h>

#include <filesystem>
#include <string>
#include <vector>

#include "platform/linux/basics_test_support.h"
#include "platform/notifications.h"

namespace platform {
namespace {

using testing::ScratchRoot;

constexpr char kWanted[] = "[Install]\nWantedBy=multi-user.target\n";

TEST(SystemdServiceManager, JobsFollowTheFirstInstalledCandidate) {
  ScratchRoot root;
  SystemdServiceManager manager(default_host_service_map(), SystemdServiceManager::Mode::kUnitFiles);

  // Nothing installed: every job is off and cannot be switched.
  EXPECT_FALSE(manager.job_enabled("com.openssh.sshd"));
  EXPECT_EQ(manager.set_job_enabled("com.openssh.sshd", true), ENOENT);
  EXPECT_FALSE(manager.job_enabled("com.example.unknown"));
  EXPECT_EQ(manager.set_job_enabled("com.example.unknown", false), ENOENT);

  // Only the second candidate is installed, and enabled.
  root.write("/lib/systemd/system/sshd.service", kWanted);
  root.link("/etc/systemd/system/multi-user.target.wants/sshd.service", "/lib/systemd/system/sshd.service");
  EXPECT_EQ(manager.unit_for_job("com.openssh.sshd"), "sshd.service");
  EXPECT_TRUE(manager.job_enabled("com.openssh.sshd"));

  // Once the preferred unit is installed it wins, and it is disabled.
  root.write("/lib/systemd/system/ssh.service", kWanted);
  EXPECT_EQ(manager.unit_for_job("com.openssh.sshd"), "ssh.service");
  EXPECT_FALSE(manager.job_enabled("com.openssh.sshd"));

  // The setter names the job by description path, the getter by label.
  // Each switch that took effect is announced in-process as "setState"
  // with the unit; the failed ones above were not.
  std::vector<std::string> announced;
  auto observer = default_center().add_observer(
      "setState", [&](const Notification& n) { announced.push_back(n.object.value_or("")); });
  EXPECT_EQ(manager.set_job_enabled("/System/Library/LaunchDaemons/ssh.plist", true), 0);
  EXPECT_TRUE(manager.job_enabled("com.openssh.sshd"));
  EXPECT_EQ(manager.set_job_enabled("/System/Library/LaunchDaemons/ssh.plist", false), 0);
  EXPECT_FALSE(manager.job_enabled("com.openssh.sshd"));
  default_center().remove_observer(observer);
  EXPECT_EQ(announced, (std::vector<std::string>{"ssh.service", "ssh.service"}));

  // A masked time daemon is neither enabled nor switchable.
  root.write("/lib/systemd/system/chrony.service", kWanted);
  root.link("/etc/systemd/system/chrony.service", "/dev/null");
  EXPECT_FALSE(manager.job_enabled("/System/Library/LaunchDaemons/org.ntp.ntpd.plist"));
  EXPECT_EQ(manager.set_job_enabled("/System/Library/LaunchDaemons/org.ntp.ntpd.plist", true), EPERM);

  // Template instances from the configuration work as jobs.
  root.write("/lib/systemd/system/tigervncserver@.service",
             "[Service]\nExecStart=/usr/sbin/tigervncsession %i\n" + std::string(kWanted));
  EXPECT_EQ(manager.set_job_enabled("com.marlo.screenlink", true), 0);
  EXPECT_TRUE(root.exists("/etc/systemd/system/multi-user.target.wants/tigervncserver@:1.service"));
  EXPECT_TRUE(manager.job_enabled("com.marlo.screenlink"));
}

TEST(SystemdServiceManager, ActivityComesFromTheProcessTableNotFromEnabling) {
  ScratchRoot root;
  // Every question looks at the process table afresh.
  SystemdServiceManager manager(default_host_service_map(), SystemdServiceManager::Mode::kUnitFiles,
                                std::chrono::milliseconds(0));
  root.write("/lib/systemd/system/nginx.service",
             "[Service]\nPIDFile=/run/nginx.pid\nExecStart=/usr/sbin/nginx -g 'daemon on;'\n" + std::string(kWanted));
  root.write("/lib/systemd/system/postfix.service",
             "[Service]\nExecStart=/usr/lib/postfix/sbin/master -w\n" + std::string(kWanted));
  root.write("/lib/systemd/system/slurmctld.service",
             "[Service]\nExecStart=/usr/sbin/a-daemon-with-a-long-name -D\n" + std::string(kWanted));
  ASSERT_EQ(manager.set_job_enabled("nginx.service", true), 0);

  // Enabled but not running.
  EXPECT_EQ(manager.active_state("nginx.service"), "inactive");
  EXPECT_EQ(manager.active_state("absent.service"), "inactive");

  // A stale PID file does not count; a live process named in it does.
  root.write("/run/nginx.pid", "4242\n");
  EXPECT_EQ(manager.active_state("nginx.service"), "inactive");
  root.add_process(4242, "nginx");
  EXPECT_EQ(manager.active_state("nginx.service"), "active");
  root.write("/run/nginx.pid", "garbage");
  EXPECT_EQ(manager.active_state("nginx.service"), "active");  // found by command name instead

  // By command name; zombies are not running; names are cut like the kernel's.
  root.add_process(77, "master", 'Z');
  EXPECT_EQ(manager.active_state("postfix.service"), "inactive");
  root.add_process(78, "master");
  EXPECT_EQ(manager.active_state("postfix.service"), "active");
  root.add_process(90, std::string("a-daemon-with-a-long-name").substr(0, 15));
  EXPECT_EQ(manager.active_state("slurmctld.service"), "active");

  // Within its age a process table is reused: a daemon that stops is seen
  // at once (its process is looked at again), one that starts only once the
  // table is older than that.
  SystemdServiceManager cached(default_host_service_map(), SystemdServiceManager::Mode::kUnitFiles,
                               std::chrono::hours(1));
  EXPECT_EQ(cached.active_state("postfix.service"), "active");
  std::filesystem::remove_all(root.path("/proc/78"));
  EXPECT_EQ(cached.active_state("postfix.service"), "inactive");
  root.add_process(79, "master");
  EXPECT_EQ(cached.active_state("postfix.service"), "inactive");
  EXPECT_EQ(manager.active_state("postfix.service"), "active");
}

TEST(SystemdServiceManager, ASandboxUsesItsUnitFilesAndNeverTheMachines) {
  ScratchRoot root;
  EXPECT_EQ(default_service_manager_mode(), SystemdServiceManager::Mode::kUnitFiles);
  std::unique_ptr<ServiceManager> manager = make_systemd_service_manager();
  root.write("/usr/lib/systemd/system/snmpd.service", kWanted);
  EXPECT_FALSE(manager->job_enabled("org.net-snmp.snmpd"));
  EXPECT_EQ(manager->set_job_enabled("org.net-snmp.snmpd", true), 0);
  EXPECT_TRUE(manager->job_enabled("org.net-snmp.snmpd"));

  // Even a manager made to talk to systemd refuses to switch anything for
  // a sandbox root; it does not even need systemd to be running to refuse.
  SystemdServiceManager bus(default_host_service_map(), SystemdServiceManager::Mode::kBus);
  EXPECT_EQ(bus.set_job_enabled("com.openssh.sshd", true), EPERM);
  EXPECT_EQ(bus.set_job_enabled("/System/Library/LaunchDaemons/org.ntp.ntpd.plist", false), EPERM);
}

// Read-only questions over the system bus; runs only where systemd runs.
TEST(SystemdServiceManager, BusSmokeTest) {
  if (sd_booted() <= 0) GTEST_SKIP() << "systemd is not running";
  testing::RealRoot real;
  SystemdServiceManager manager(default_host_service_map(), SystemdServiceManager::Mode::kBus);
  EXPECT_TRUE(manager.unit_installed("systemd-journald.service"));
  EXPECT_EQ(manager.active_state("systemd-journald.service"), "active");
  EXPECT_FALSE(manager.unit_installed("hubwarden-no-such-unit.service"));
  EXPECT_FALSE(manager.job_enabled("com.example.unknown"));
  manager.job_enabled("com.openssh.sshd");  // must not crash whatever the answer
}

}  // namespace
}  // namespace platform
