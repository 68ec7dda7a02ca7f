// Zones by name and by abbreviation, against zone folders the tests lay
// out below a sandbox root: only TZif files count, names cannot climb out
// of the folder, and an abbreviation leads to a zone that is installed.
#include "platform/linux/time_zones_icu.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "platform/linux/basics_test_support.h"

namespace platform {
namespace {

using testing::ScratchRoot;

const std::string kZoneBytes = std::string("TZif2") + std::string(39, '\0') + "rest of a zone file";

void add_zone(const ScratchRoot& root, const std::string& name) {
  root.write("/usr/share/zoneinfo/" + name, kZoneBytes);
}

TEST(LinuxTimeZonesTest, NamesAreInstalledTzifFilesBelowTheRoot) {
  ScratchRoot root;
  add_zone(root, "Europe/Paris");
  add_zone(root, "Etc/GMT+5");
  root.write("/usr/share/zoneinfo/zone.tab", "FR\t+4852+00220\tEurope/Paris\n");
  root.write("/usr/share/zoneinfo/Empty", "");
  root.link("/usr/share/zoneinfo/Europe/Monaco", "Paris");
  root.link("/usr/share/zoneinfo/Absolute", "/usr/share/zoneinfo/Europe/Paris");
  // The machine's own zone, which the sandbox does not have.
  root.link("/usr/share/zoneinfo/Machine", "/usr/share/zoneinfo/Etc/UTC");
  root.link("/usr/share/zoneinfo/Climbing", "../../../../../../usr/share/zoneinfo/Etc/UTC");
  root.mkdir("/usr/share/zoneinfo/America");
  ASSERT_EQ(::mkfifo(root.path("/usr/share/zoneinfo/Fifo").c_str(), 0600), 0);
  std::unique_ptr<TimeZones> zones = make_linux_time_zones();

  for (const char* name : {"Europe/Paris", "Etc/GMT+5", "Europe/Monaco", "Absolute"}) {
    EXPECT_EQ(zones->zone_by_name(name), name);
  }
  const std::string refused[] = {"",
                                 "Europe",
                                 "America",
                                 "zone.tab",
                                 "Empty",
                                 "Machine",
                                 "Climbing",
                                 "Fifo",
                                 "Europe/Berlin",
                                 "/usr/share/zoneinfo/Europe/Paris",
                                 "../zoneinfo/Europe/Paris",
                                 "Europe/../Europe/Paris",
                                 "./Europe/Paris",
                                 "Europe//Paris",
                                 "Europe/Paris/",
                                 std::string("Europe/Paris\0.x", 15),
                                 "Europe/Paris ",
                                 std::string(300, 'A')};
  for (const std::string& name : refused) EXPECT_FALSE(zones->zone_by_name(name)) << name;
}

TEST(LinuxTimeZonesTest, AbbreviationsLeadToInstalledZones) {
  ScratchRoot root;
  add_zone(root, "Europe/Paris");
  add_zone(root, "America/Los_Angeles");
  // Only the current spelling of India's zone, not ICU's reference id.
  add_zone(root, "Asia/Kolkata");
  std::unique_ptr<TimeZones> zones = make_linux_time_zones();
  EXPECT_EQ(zones->zone_by_abbreviation("CET"), "Europe/Paris");
  EXPECT_EQ(zones->zone_by_abbreviation("CEST"), "Europe/Paris");
  EXPECT_EQ(zones->zone_by_abbreviation("PST"), "America/Los_Angeles");
  EXPECT_EQ(zones->zone_by_abbreviation("PDT"), "America/Los_Angeles");
  EXPECT_EQ(zones->zone_by_abbreviation("IST"), "Asia/Kolkata");
  // Known abbreviations whose zones this root lacks, and unknown ones.
  for (const char* missing : {"EST", "AEST", "XYZ", "cet", "", "N/A", "Europe/Paris"}) {
    EXPECT_FALSE(zones->zone_by_abbreviation(missing)) << missing;
  }
  add_zone(root, "America/New_York");
  EXPECT_EQ(zones->zone_by_abbreviation("EST"), "America/New_York");
}

TEST(LinuxTimeZonesTest, MachineZonesWithoutASandbox) {
  std::unique_ptr<TimeZones> zones = make_linux_time_zones();
  if (!zones->zone_by_name("Europe/Paris")) GTEST_SKIP() << "no zone files on this machine";
  EXPECT_EQ(zones->zone_by_abbreviation("CET"), "Europe/Paris");
  EXPECT_EQ(zones->zone_by_abbreviation("PST"), "America/Los_Angeles");
  EXPECT_FALSE(zones->zone_by_abbreviation("XYZ"));
}

}  // namespace
}  // namespace platform
