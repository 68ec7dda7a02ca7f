#include "tools/softwareupdate/apt_output.h"

#include <gtest/gtest.h>

#include "tools/softwareupdate/package_names.h"
#include "tools/softwareupdate/update_jobs.h"

namespace softwareupdate {
namespace {

TEST(AptOutput, SimulatedUpgradeKeepsOnlyUpgradesOfInstalledPackages) {
  auto upgrades = parse_simulated_upgrade(
      "Reading package lists...\n"
      "The following packages will be upgraded:\n"
      "   base-files libc6\n"
      "Inst base-files [12.4+deb12u4] (12.4+deb12u5 Debian:12.5/stable [amd64])\r\n"
      "Inst linux-image-6.1.0-21-amd64 (6.1.90-1 Debian-Security:12/stable-security [amd64])\n"
      "Inst libc6:i386 [2.36-9] (2.36-9+deb12u4 Debian:12.5/stable [i386]) []\n"
      "Inst hw-probe+extra [1:1.0~rc1] (1:1.0 local [all])\n"
      "Conf base-files (12.4+deb12u5 Debian:12.5/stable [amd64])\n"
      "Remv old-thing [1.0]\n"
      "Inst broken [1.0\n"
      "Inst  \n"
      "Inst truncated [1.0] (\n");
  ASSERT_EQ(upgrades.size(), 3u);
  EXPECT_EQ(upgrades[0].name, "base-files");
  EXPECT_EQ(upgrades[0].installed_version, "12.4+deb12u4");
  EXPECT_EQ(upgrades[0].candidate_version, "12.4+deb12u5");
  EXPECT_EQ(upgrades[1].name, "libc6:i386");
  EXPECT_EQ(upgrades[1].candidate_version, "2.36-9+deb12u4");
  EXPECT_EQ(upgrades[2].candidate_version, "1:1.0");
}

TEST(AptOutput, RecordsPolicyAndErrors) {
  auto records = parse_package_records(
      "Package: hw-notes\n"
      "Version: 2.0-1\n"
      "Description: notes for the test\n"
      "  continued: not a field\n"
      "Description-md5: 0123456789abcdef\n"
      "Size: 3073\n"
      "\n"
      "Package: other\n"
      "Version: 1\n"
      "Size: 12x\n"
      "Description-md5: ffff\n"
      "Description-en: translated summary\n");
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].summary, "notes for the test");
  EXPECT_EQ(records[0].size, 3073u);
  EXPECT_FALSE(records[1].size.has_value());
  EXPECT_EQ(records[1].summary, "translated summary");

  auto policy = parse_policy(
      "hw-notes:\n  Installed: 1.0-1\n  Candidate: 2.0-1\n  Version table:\n     2.0-1 500\n"
      "libc6:i386:\n  Installed: (none)\n  Candidate: 2.36-9\n");
  EXPECT_EQ(policy["hw-notes"].installed, "1.0-1");
  EXPECT_EQ(policy["hw-notes"].candidate, "2.0-1");
  EXPECT_EQ(policy["libc6:i386"].installed, "(none)");

  EXPECT_EQ(first_apt_error("W: a warning\nE: Unable to locate package x\nE: second\n"), "Unable to locate package x");
  EXPECT_EQ(first_apt_error("W: only warnings\n"), "");
}

TEST(AptOutput, DescribedUpgradesRoundSizesUpAndApplyTheRules) {
  std::vector<PendingUpgrade> upgrades = {
      {"hw-notes", "1.0-1", "2.0-1"}, {"linux-image-amd64", "6.1", "6.2"}, {"unknown-size", "1", "2"}};
  std::vector<PackageRecord> records = {{"hw-notes", "1.0-1", 999999, "old"},
                                        {"hw-notes", "2.0-1", 2049, "notes"},
                                        {"linux-image-amd64", "6.2", 1024, ""}};
  IgnoreList ignored{{"linux-image-amd64"}, ""};
  plist::Array entries = describe_upgrades(upgrades, records, ignored);
  ASSERT_EQ(entries.size(), 3u);
  const plist::Dict& notes = *entries[0].as_dict();
  std::vector<std::string> keys;
  for (const auto& [k, v] : notes) keys.push_back(k);
  EXPECT_EQ(keys, (std::vector<std::string>{"identifier", "name", "version", "sizeInKB", "restartRequired", "ignored",
                                            "description"}));
  EXPECT_EQ(*notes.find("sizeInKB"), plist::Value(3));  // the candidate's record, rounded up
  EXPECT_EQ(*notes.find("restartRequired"), plist::Value(false));
  const plist::Dict& kernel = *entries[1].as_dict();
  EXPECT_EQ(*kernel.find("sizeInKB"), plist::Value(1));
  EXPECT_EQ(*kernel.find("restartRequired"), plist::Value(true));
  EXPECT_EQ(*kernel.find("ignored"), plist::Value(true));
  EXPECT_FALSE(kernel.contains("description"));
  EXPECT_EQ(*entries[2].as_dict()->find("sizeInKB"), plist::Value(0));
}

TEST(PackageNames, OnlyDebianNamesPass) {
  for (const char* good : {"hw-probe+extra", "libc6", "g++", "libc6:i386", "0ad"}) {
    EXPECT_TRUE(is_valid_package_name(good)) << good;
  }
  for (const char* bad :
       {"", "a", "-rf", "--force", "a;b", "a b", "Foo", "$(x)", "a:", ":amd64", "a:b:c", "+x", "a/../b", "a\nb"}) {
    EXPECT_FALSE(is_valid_package_name(bad)) << bad;
  }
  EXPECT_TRUE(usually_needs_restart("libc6:amd64"));
  EXPECT_FALSE(usually_needs_restart("libc6-dev"));
  EXPECT_FALSE(usually_needs_restart("linux-headers-amd64"));
}

}  // namespace
}  // namespace softwareupdate
