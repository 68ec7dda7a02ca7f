// The host service configuration: lookups, the shipped file, and overrides.
#include "platform/linux/job_map.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/linux/basics_test_support.h"

namespace platform {
namespace {

using Units = std::vector<std::string>;

TEST(JobMap, LooksJobsUpByLabelPathAndUnitName) {
  HostServiceMap map = default_host_service_map();
  Units ntp = {"ntpsec.service", "ntp.service", "chrony.service", "systemd-timesyncd.service"};
  EXPECT_EQ(map.units_for_job("org.ntp.ntpd"), ntp);
  EXPECT_EQ(map.units_for_job("/System/Library/LaunchDaemons/org.ntp.ntpd.plist"), ntp);
  EXPECT_EQ(map.units_for_job("/System/Library/LaunchDaemons/ssh.plist"), (Units{"ssh.service", "sshd.service"}));
  // A description path without an entry of its own names its label.
  EXPECT_EQ(map.units_for_job("/Library/LaunchDaemons/org.net-snmp.snmpd.plist"), Units{"snmpd.service"});
  EXPECT_EQ(map.units_for_job("cups.service"), Units{"cups.service"});
  EXPECT_TRUE(map.units_for_job("com.example.unknown").empty());
  EXPECT_TRUE(map.units_for_job("/System/Library/LaunchDaemons/unknown.plist").empty());
  EXPECT_TRUE(map.units_for_job("../cups.service").empty());
  EXPECT_TRUE(map.units_for_job("").empty());

  EXPECT_EQ(map.units_for_module("hubwarden_web"), (Units{"nginx.service", "apache2.service"}));
  EXPECT_TRUE(map.units_for_module("hubwarden_nat").empty());
  EXPECT_TRUE(map.units_for_module("hubwarden_info").empty());
}

TEST(JobMap, AdministratorFileOverridesAndBrokenFilesAreSkipped) {
  testing::ScratchRoot root;
  // Without any file the compiled-in defaults apply.
  HostServiceMap plain = load_host_service_map();
  EXPECT_EQ(plain.jobs, default_host_service_map().jobs);

  // The installed shipped file may carry newer entries than the binary.
  root.write(kShippedHostConfigPath,
             "<plist version=\"1.0\"><dict><key>serviceModules</key><dict>"
             "<key>hubwarden_nat</key><array><string>nftables</string></array>"
             "</dict></dict></plist>");
  root.write(kHostConfigPath,
             "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict>"
             "<key>jobs</key><dict>"
             "<key>com.openssh.sshd</key><array><string>dropbear</string></array>"
             "<key>com.example.agent</key><array><string>agent@main.service</string></array>"
             "</dict>"
             "<key>serviceModules</key><dict>"
             "<key>hubwarden_web</key><array/>"
             "<key>hubwarden_wiki</key><array><string>mediawiki.service</string></array>"
             "</dict></dict></plist>");
  HostServiceMap map = load_host_service_map();
  EXPECT_EQ(map.units_for_job("com.openssh.sshd"), Units{"dropbear.service"});
  EXPECT_EQ(map.units_for_job("com.example.agent"), Units{"agent@main.service"});
  // Entries the file does not name keep their defaults.
  EXPECT_EQ(map.units_for_job("org.net-snmp.snmpd"), Units{"snmpd.service"});
  EXPECT_TRUE(map.units_for_module("hubwarden_web").empty());
  EXPECT_EQ(map.units_for_module("hubwarden_nat"), Units{"nftables.service"});
  EXPECT_EQ(map.units_for_module("hubwarden_wiki"), Units{"mediawiki.service"});
  EXPECT_EQ(map.service_modules.size(), 27u);
  EXPECT_EQ(map.service_modules.back().first, "hubwarden_wiki");

  // One bad entry spoils the whole file, never half of it.
  for (const char* broken :
       {"<plist version=\"1.0\"><dict><key>jobs</key><dict>", "<plist version=\"1.0\"><array/></plist>",
        "<plist version=\"1.0\"><dict><key>jobs</key><array/></dict></plist>",
        "<plist version=\"1.0\"><dict><key>jobs</key><dict>"
        "<key>com.openssh.sshd</key><array><string>dropbear</string></array>"
        "<key>bad</key><array><integer>5</integer></array></dict></dict></plist>",
        "<plist version=\"1.0\"><dict><key>serviceModules</key><dict>"
        "<key>hubwarden_web</key><array><string>../../etc/passwd</string></array></dict></dict></plist>"}) {
    root.write(kHostConfigPath, broken);
    HostServiceMap fallback = load_host_service_map();
    EXPECT_EQ(fallback.units_for_job("com.openssh.sshd"), (Units{"ssh.service", "sshd.service"})) << broken;
    EXPECT_EQ(fallback.units_for_module("hubwarden_web"), (Units{"nginx.service", "apache2.service"})) << broken;
    EXPECT_EQ(fallback.units_for_module("hubwarden_nat"), Units{"nftables.service"}) << broken;
  }
}

}  // namespace
}  // namespace platform
