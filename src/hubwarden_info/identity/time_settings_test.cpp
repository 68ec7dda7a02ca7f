// Clock, time server and time zone getters.
#include "identity/time_settings.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>

#include "identity/city_record.h"
#include "platform/file_util.h"
#include "testing/settings_doubles.h"

namespace hubwarden {
namespace {

class TimeSettingsTest : public ::testing::Test {
 protected:
  void put(const std::string& path, const std::string& text) {
    ASSERT_TRUE(platform::write_file_atomically(world.path(path), text));
  }
  void link_localtime(const std::string& target) {
    ASSERT_TRUE(platform::make_directories(world.path("/etc")));
    ::unlink(world.path("/etc/localtime").c_str());
    ASSERT_EQ(::symlink(target.c_str(), world.path("/etc/localtime").c_str()), 0);
  }

  testing::SettingsWorld world;
};

TEST_F(TimeSettingsTest, ServerNameIsTheFirstServerDirective) {
  EXPECT_FALSE(get_ntp_server_name());

  put("/etc/ntp.conf", "# servers below\nservers nope\n  server\ta.example.com iburst\nserver b.example.com\n");
  EXPECT_EQ(get_ntp_server_name(), "a.example.com");
  put("/etc/ntp.conf", "server " + std::string(600, 'x'));
  EXPECT_EQ(get_ntp_server_name()->size(), 511u);

  // Without a server line, the systemd time-sync configuration answers.
  put("/etc/ntp.conf", "driftfile /var/lib/ntp/drift\n");
  put("/etc/systemd/timesyncd.conf", "[Time]\n#NTP=commented.example.com\nNTP=c.example.com d.example.com\n");
  EXPECT_EQ(get_ntp_server_name(), "c.example.com");
  put("/etc/systemd/timesyncd.conf", "[Time]\nNTP=\n");
  EXPECT_FALSE(get_ntp_server_name());
}

TEST_F(TimeSettingsTest, TimeZoneFollowsTheLocaltimeLinkFirst) {
  EXPECT_EQ(get_time_zone_name(), "");
  put("/etc/timezone", "America/New_York\n");
  EXPECT_EQ(get_time_zone_name(), "America/New_York");
  link_localtime("/usr/share/zoneinfo/Europe/Paris");
  EXPECT_EQ(get_time_zone_name(), "Europe/Paris");
  link_localtime("../usr/share/zoneinfo/posix/Asia/Tokyo");
  EXPECT_EQ(get_time_zone_name(), "Asia/Tokyo");
  // A copied zone file is no link: the name file has to answer.
  ::unlink(world.path("/etc/localtime").c_str());
  put("/etc/localtime", "TZif2");
  EXPECT_EQ(get_time_zone_name(), "America/New_York");
}

TEST_F(TimeSettingsTest, ClockAndTimeDaemonState) {
  world.clock.set_now(1700000000.9);
  EXPECT_EQ(*get_time().as_unsigned(), 1700000000u);
  world.clock.set_now(-3);
  EXPECT_EQ(*get_time().as_unsigned(), 0u);
  world.clock.set_now(NAN);
  EXPECT_EQ(*get_time().as_unsigned(), 0u);

  EXPECT_EQ(set_time(1800000000), 0);
  EXPECT_EQ(world.clock.set_times(), std::vector<double>{1800000000.0});

  EXPECT_FALSE(get_ntp_sync_state());
  world.service_manager.set_job("/System/Library/LaunchDaemons/org.ntp.ntpd.plist", true);
  EXPECT_TRUE(get_ntp_sync_state());
  EXPECT_TRUE(get_ntp_server_state());

  EXPECT_EQ(get_city_record(), Value(0));
  EXPECT_EQ(testing::lines_at(world.log, platform::Priority::Error).size(), 1u);
}

}  // namespace
}  // namespace hubwarden
