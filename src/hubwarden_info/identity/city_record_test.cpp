// Time zone by city: the zone link, the stored selection, and the
// announcements of a change.
#include "identity/city_record.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cmath>
#include <filesystem>
#include <limits>
#include <string>
#include <vector>

#include "identity/time_settings.h"
#include "identity/time_zone.h"
#include "platform/fake/fake_cities.h"
#include "platform/fake/fake_distributed_notifications.h"
#include "platform/fake/fake_preferences.h"
#include "platform/file_util.h"
#include "request/operations.h"
#include "testing/settings_doubles.h"

namespace hubwarden {
namespace {

using testing::Installed;

constexpr char kNoCityLine[] = "Neither Granite nor Basalt city information was found, can't determine time zone";

class CityRecordTest : public ::testing::Test {
 protected:
  CityRecordTest() {
    cities.add(platform::fake_paris());
    cities.add(platform::fake_tokyo());
    for (const char* zone : {"Europe/Paris", "Asia/Tokyo", "America/Los_Angeles"}) {
      world.root.write(std::string("/usr/share/zoneinfo/") + zone, "TZif2 stand-in");
    }
  }

  platform::City city_in(uint32_t id, const std::string& zone) {
    platform::City city = platform::fake_tokyo();
    city.geonameid = id;
    city.time_zone = zone;
    return city;
  }
  static int choose_city(Value id) { return set_city_record(&id); }
  std::string localtime_target() const { return world.root.link_target(kLocaltimePath); }
  ino_t localtime_inode() const {
    struct stat st {};
    ::lstat(world.path(kLocaltimePath).c_str(), &st);
    return st.st_ino;
  }
  size_t no_city_lines() const {
    size_t n = 0;
    for (const std::string& line : testing::lines_at(world.log, platform::Priority::Error)) n += line == kNoCityLine;
    return n;
  }
  uint64_t write_status(const Dict& configuration) {
    ReplySlot reply;
    Dict context;
    write_settings(Dict{{"configuration", configuration}, {"getDetails", 0}}, reply, &context);
    return *reply->find("writeStatus")->as_unsigned();
  }

  testing::SettingsWorld world;
  platform::FakeCityDatabase cities;
  platform::FakeTimeZones zones;
  platform::FakePreferences preferences;
  platform::FakeDistributedNotifications notifications;
  Installed<platform::CityDatabase> cities_in{&cities};
  Installed<platform::TimeZones> zones_in{&zones};
  Installed<platform::Preferences> preferences_in{&preferences};
  Installed<platform::DistributedNotifications> notifications_in{&notifications};
};

TEST_F(CityRecordTest, SetTimeZoneFailuresAndSuccess) {
  world.root.mkdir("/etc");
  EXPECT_EQ(set_time_zone("Europe/Paris"), 0);
  EXPECT_EQ(localtime_target(), "/usr/share/zoneinfo/Europe/Paris");
  EXPECT_EQ(get_time_zone_name(), "Europe/Paris");

  // No such zone: the old link is gone all the same.
  for (const char* bad : {"Mars/Olympus", "Europe", "../../../etc/hostname", "/etc/hostname", ""}) {
    world.root.write("/etc/hostname", "host\n");
    world.root.link(kLocaltimePath, "/usr/share/zoneinfo/Asia/Tokyo");
    EXPECT_EQ(set_time_zone(bad), kNoZoneFile) << bad;
    EXPECT_FALSE(world.root.exists(kLocaltimePath)) << bad;
  }
  EXPECT_TRUE(
      world.log.contains(platform::Priority::Notice, "/usr/share/zoneinfo/Mars/Olympus timezone file does not exist"));

  // Something that is no link and cannot be unlinked stays, and says so.
  world.root.write("/etc/localtime/keep", "x");
  EXPECT_EQ(set_time_zone("Europe/Paris"), kLocaltimeNotRemoved);
  EXPECT_TRUE(world.root.exists("/etc/localtime/keep"));
  EXPECT_TRUE(world.log.contains(platform::Priority::Notice, "unable to unlink"));
  std::filesystem::remove_all(world.path("/etc"));

  // No folder for the link.
  EXPECT_EQ(set_time_zone("Europe/Paris"), kLocaltimeNotLinked);
  EXPECT_TRUE(world.log.contains(platform::Priority::Notice, "unable to link /usr/share/zoneinfo/Europe/Paris"));

  // Debian's copy of the zone's name follows the link, when there is one.
  world.root.write("/etc/timezone", "Asia/Tokyo\n");
  EXPECT_EQ(set_time_zone("America/Los_Angeles"), 0);
  EXPECT_EQ(*platform::read_file(world.path("/etc/timezone")), "America/Los_Angeles\n");
}

TEST_F(CityRecordTest, CityRoundTripsThroughThePreferencesAndSetsTheZone) {
  world.root.mkdir("/etc");
  EXPECT_EQ(choose_city(Value(2988507)), 0);
  EXPECT_EQ(localtime_target(), "/usr/share/zoneinfo/Europe/Paris");
  ASSERT_TRUE(preferences.stored(kSelectedCityKey));
  ASSERT_TRUE(preferences.stored(kLastSelectedCityKey));
  EXPECT_EQ(*preferences.stored(kSelectedCityKey)->as_dict()->find_string("TimeZoneName"), "Europe/Paris");
  EXPECT_EQ(get_city_record(), Value(2988507));

  // Older consoles only left the array form.
  preferences.set(kSelectedCityKey, std::nullopt);
  ASSERT_TRUE(preferences.flush());
  EXPECT_EQ(get_city_record(), Value(2988507));
  EXPECT_EQ(no_city_lines(), 0u);

  // A second city of the same zone leaves the link as it is.
  cities.add(city_in(3000000, "Europe/Paris"));
  ino_t before = localtime_inode();
  EXPECT_EQ(choose_city(Value(3000000.0)), 0);
  EXPECT_EQ(localtime_inode(), before);
  EXPECT_EQ(get_city_record(), Value(3000000));

  // A zone known only by its abbreviation.
  cities.add(city_in(3000001, "PST"));
  EXPECT_EQ(choose_city(Value(3000001)), 0);
  EXPECT_EQ(localtime_target(), "/usr/share/zoneinfo/America/Los_Angeles");

  // The zone database knows the zone but the sandbox has no file for it.
  cities.add(city_in(3000002, "UTC"));
  EXPECT_EQ(choose_city(Value(3000002)), kNoZoneFile);
}

TEST_F(CityRecordTest, NoCityOrADamagedOneReadsAsZeroAndLogsOncePerCall) {
  EXPECT_EQ(get_city_record(), Value(0));
  EXPECT_EQ(no_city_lines(), 1u);
  EXPECT_EQ(get_city_record(), Value(0));
  EXPECT_EQ(no_city_lines(), 2u);

  preferences.store(kSelectedCityKey, Value(Dict{{"TimeZoneName", "Europe/Paris"}}));
  EXPECT_EQ(get_city_record(), Value(0));
  preferences.store(kSelectedCityKey, Value("2988507"));
  preferences.store(kLastSelectedCityKey, Value(Array{Value(1), Value("x")}));
  EXPECT_EQ(get_city_record(), Value(0));
  EXPECT_EQ(no_city_lines(), 4u);
}

TEST_F(CityRecordTest, BadIdsSelectNoCityAndStoreNothing) {
  world.root.mkdir("/etc");
  world.root.link(kLocaltimePath, "/usr/share/zoneinfo/Asia/Tokyo");
  const std::vector<Value> bad = {Value("2988507"),
                                  Value(-2988507),
                                  Value(0),
                                  Value(2988507.5),
                                  Value(true),
                                  Value(std::numeric_limits<uint64_t>::max()),
                                  Value(4294967296.0 + 2988507),
                                  Value(123456789),
                                  Value(std::nan(""))};
  for (const Value& id : bad) EXPECT_EQ(set_city_record(&id), kNoCityGiven);
  EXPECT_EQ(set_city_record(nullptr), kNoCityGiven);
  EXPECT_EQ(preferences.flushes(), 0);
  EXPECT_EQ(localtime_target(), "/usr/share/zoneinfo/Asia/Tokyo");

  // Through writeSettings: the failure is reported and nobody is told of a
  // change.
  EXPECT_EQ(write_status(Dict{{"cityRecord", -1}}), uint64_t{kNoCityGiven});
  EXPECT_TRUE(notifications.posted().empty());
}

TEST_F(CityRecordTest, UnknownZoneStoresTheCityLeavesTheLinkAndStillAnnounces) {
  world.root.mkdir("/etc");
  world.root.link(kLocaltimePath, "/usr/share/zoneinfo/Asia/Tokyo");
  cities.add(city_in(3000003, "Mars/Olympus"));
  EXPECT_EQ(write_status(Dict{{"cityRecord", 3000003}}), 0u);
  EXPECT_EQ(localtime_target(), "/usr/share/zoneinfo/Asia/Tokyo");
  EXPECT_EQ(get_city_record(), Value(3000003));
  EXPECT_EQ(notifications.posted(), (std::vector<std::string>{kTimeZoneDidChangeNotification, kClockNotification}));

  // The same city again is no change.
  notifications.clear();
  EXPECT_EQ(write_status(Dict{{"cityRecord", 3000003}}), 0u);
  EXPECT_TRUE(notifications.posted().empty());

  // Setting the clock by hand is announced too.
  EXPECT_EQ(set_time(1800000000), 0);
  EXPECT_EQ(notifications.posted(), std::vector<std::string>{kClockNotification});
  world.clock.fail_set_time(EPERM);
  EXPECT_EQ(set_time(1800000000), kSetTimeFailed);
  EXPECT_EQ(notifications.posted().size(), 1u);
}

}  // namespace
}  // namespace hubwarden
