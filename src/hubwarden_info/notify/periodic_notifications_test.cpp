#include "notify/periodic_notifications.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "platform/byte_amount.h"
#include "platform/fake/fake_event_monitor.h"
#include "platform/fake/fake_log.h"
#include "platform/fake/fake_meters.h"
#include "request/operations.h"
#include "request/spine_test_support.h"

namespace hubwarden {
namespace {

using plist::Dict;
using testing::Installed;

platform::FakeVolume volume(const char* name, uint64_t total, uint64_t free) {
  platform::FakeVolume v;
  v.info.name = name;
  v.info.mount_point = std::string("/") + name;
  v.info.total_bytes = total;
  v.info.free_bytes = free;
  return v;
}

class PeriodicNotificationsTest : public ::testing::Test {
 protected:
  PeriodicNotificationsTest() : log_(&fake_log_), monitor_(&fake_monitor_), volumes_(&fake_volumes_) {
    fake_volumes_.volumes = {volume("root", 4000000000, 1000000000), volume("empty", 0, 0), volume("data", 3, 2)};
  }

  // The update check that follows the disk events looks for its rule file.
  testing::SandboxRoot root_;
  platform::FakeLog fake_log_;
  platform::FakeEventMonitor fake_monitor_;
  platform::FakeVolumes fake_volumes_;

 private:
  Installed<platform::Log> log_;
  Installed<platform::EventMonitor> monitor_;
  Installed<platform::Volumes> volumes_;
};

// Three volumes give three events in order through one port, closed at the
// end of the call, a volume without size reporting 0.00 per cent; when no
// port can be opened, each volume tries again and logs its own failure.
TEST_F(PeriodicNotificationsTest, OneEventPerVolumeThroughOnePort) {
  Dict context;
  EXPECT_EQ(periodic_notifications_handler(&context, 3), nullptr);
  EXPECT_EQ(fake_monitor_.opens, 1);
  EXPECT_EQ(fake_monitor_.closes, 1);
  ASSERT_EQ(fake_monitor_.posts.size(), 3u);
  EXPECT_EQ(fake_monitor_.posts[0].event_type, "com.marlo.hubwarden_info.diskstate");
  EXPECT_EQ(testing::keys_of(fake_monitor_.posts[0].event),
            (std::vector<std::string>{"event_type", "volumeName", "freePercent", "freeBytes"}));
  EXPECT_EQ(fake_monitor_.posts[0].event, (Dict{{"event_type", "com.marlo.hubwarden_info.diskstate"},
                                                {"volumeName", "root"},
                                                {"freePercent", "25.00"},
                                                {"freeBytes", platform::byteAmountString(1e9)}}));
  EXPECT_EQ(*fake_monitor_.posts[1].event.find_string("freePercent"), "0.00");
  EXPECT_EQ(*fake_monitor_.posts[2].event.find_string("freePercent"), "66.67");
  EXPECT_TRUE(fake_log_.lines().empty());

  fake_monitor_.fail_open = true;
  EXPECT_EQ(periodic_notifications_handler(&context, 4), nullptr);
  EXPECT_EQ(fake_monitor_.open_attempts, 4);
  std::vector<std::string> lines = fake_log_.lines();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "hubwarden_info: unable to create event port."), 3);
  EXPECT_TRUE(fake_log_.contains(platform::Priority::Error, "unable to create event port"));
}

}  // namespace
}  // namespace hubwarden
