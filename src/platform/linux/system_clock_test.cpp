// The clock: times that cannot be a time_t never reach the kernel, and
// setting the time under a sandbox root moves the sandbox's clock alone.
#include <errno.h>
#include <gtest/gtest.h>
#include <time.h>

#include <cmath>
#include <filesystem>

#include "platform/file_util.h"
#include "platform/linux/basics.h"
#include "platform/linux/basics_test_support.h"

namespace platform {
namespace {

using testing::ScratchRoot;

double machine_now() {
  struct timespec ts;
  ::clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<double>(ts.tv_sec);
}

TEST(SystemClockTest, MachineClockAndRefusedTimes) {
  auto clock = make_system_clock();
  EXPECT_NEAR(clock->now(), machine_now(), 5);
  std::optional<double> boot = clock->boot_time();
  ASSERT_TRUE(boot);
  EXPECT_GT(*boot, 0);
  EXPECT_LT(*boot, clock->now());
  for (double bad : {std::nan(""), -1.0, 1e300}) EXPECT_EQ(clock->set_time(bad), EINVAL) << bad;
}

TEST(SandboxClockTest, SettingTheTimeMovesOnlyTheSandboxClock) {
  ScratchRoot root;
  std::unique_ptr<Clock> clock = make_system_clock();
  std::unique_ptr<Clock> other = make_system_clock();
  // A clock file that does not exist: the machine's time and boot time.
  double uptime = machine_now() - make_sandbox_clock(root.path("/never-set"))->boot_time().value_or(0);

  ASSERT_EQ(clock->set_time(86400), 0);
  EXPECT_NEAR(clock->now(), 86400, 5);
  EXPECT_GT(machine_now(), 1e9) << "the machine's clock was stepped";
  EXPECT_TRUE(file_exists(root.path(kSandboxClockPath)));
  // Another process on the same sandbox (a later request) reads the same
  // clock, and the uptime it reports is still the machine's.
  EXPECT_NEAR(other->now(), 86400, 5);
  ASSERT_TRUE(other->boot_time());
  EXPECT_NEAR(other->now() - *other->boot_time(), uptime, 5);

  // Refused times leave the sandbox clock where it was.
  for (double bad : {std::nan(""), -1.0, 1e300}) EXPECT_EQ(clock->set_time(bad), EINVAL) << bad;
  EXPECT_NEAR(clock->now(), 86400, 5);

  // A damaged clock file counts as a clock that was never set.
  root.write(kSandboxClockPath, "<plist><dict><key>offsetSeconds</key>");
  EXPECT_NEAR(clock->now(), machine_now(), 5);
  root.write(kSandboxClockPath,
             "<plist version=\"1.0\"><dict><key>offsetSeconds</key><string>x</string></dict></plist>");
  EXPECT_NEAR(clock->now(), machine_now(), 5);

  // When the file cannot be written, the clock is not set.
  std::filesystem::remove_all(root.path("/var/db/hubwarden"));
  root.write("/var/db/hubwarden", "a file where the folder should be");
  EXPECT_EQ(clock->set_time(86400), EIO);
  EXPECT_GT(machine_now(), 1e9);
}

}  // namespace
}  // namespace platform
