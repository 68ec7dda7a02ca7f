// "readSettings": key order, sources and defaults.
#include <gtest/gtest.h>
#include <unistd.h>

#include "platform/file_util.h"
#include "testing/settings_doubles.h"

namespace hubwarden {
namespace {

using testing::keys_of;

class ReadSettingsTest : public ::testing::Test {
 protected:
  Dict read() {
    ReplySlot reply;
    EXPECT_EQ(read_settings(nullptr, reply, &context), nullptr);
    EXPECT_TRUE(reply);
    return reply ? *reply : Dict();
  }

  testing::SettingsWorld world;
  Dict context;
};

TEST_F(ReadSettingsTest, EmptyServerGivesEveryKeyInOrderWithDefaults) {
  Dict reply = read();
  EXPECT_EQ(keys_of(reply), (std::vector<std::string>{"configuration", "readStatus"}));
  EXPECT_EQ(*reply.find("readStatus")->as_unsigned(), 0u);
  const Dict& settings = *reply.find_dict("configuration");
  Dict expected{{"localcastName", ""},
                {"computerName", ""},
                {"enableSNMP", false},
                {"enableSSH", false},
                {"enableScreenlink", false},
                {"enableFileSyncAgent", false},
                {"enableClientDiscovery", true},
                {"ntpTimeServe", false},
                {"ntpTimeSync", false},
                {"ntpServerName", ""},
                {"previousNTPServerName", ""},
                {"cityRecord", 0},
                {"timeZone", ""},
                {"notificationRules", Array()},
                {"launchableScripts", Array()},
                {"accessControlLists", Array()},
                {"accessControlListNames", Array{"com.marlo.access_all_services"}},
                {"notifications", Dict()},
                {"adminControlLists", Array()},
                {"adminControlListNames", Array{"com.marlo.admin_all_services"}},
                {"monitorControlLists", Array()},
                {"monitorControlListNames", Array{"com.marlo.monitor_all_services"}},
                {"volumeList", Array()},
                {"currentTime", uint64_t{1700000000}},
                {"serviceConfig", Dict()},
                {"availableServices", Array()}};
  EXPECT_EQ(settings, expected);
  EXPECT_EQ(keys_of(settings), keys_of(expected));
  EXPECT_NE(settings.find("currentTime")->as_unsigned(), nullptr);
}

TEST_F(ReadSettingsTest, ValuesComeFromTheirOwners) {
  context.set("info", Dict{{"computerName", "Hub"}, {"localcastName", "hub"}});
  context.set("previousNTPServerName", "old.example.com");
  world.service_manager.set_job("org.net-snmp.snmpd", true);
  world.service_manager.set_job("com.openssh.sshd", true);
  world.service_manager.set_job("com.marlo.screenlink", false);
  world.service_manager.set_job("/System/Library/LaunchDaemons/com.marlo.FileSyncAgent.sshd.plist", true);
  world.service_manager.set_job("/System/Library/LaunchDaemons/org.ntp.ntpd.plist", true);
  ASSERT_TRUE(
      platform::write_file_atomically(world.path("/etc/ntp.conf"), "# clock\nserver time.example.com iburst\n"));
  ASSERT_TRUE(platform::make_directories(world.path("/etc")));
  ASSERT_EQ(::symlink("/usr/share/zoneinfo/Europe/Paris", world.path("/etc/localtime").c_str()), 0);
  Dict notifications{{"diskFull", Dict{{"active", true}}}};
  write_settings_file(Dict{{"askClientsToIgnoreVantorZeroconfReg", true},
                           {"NotificationsSettings", notifications},
                           {"ServiceConfig", Dict{{"services", Dict()}}}});
  world.make_services_ready();
  world.modules.set_module_names({"hubwarden_info", "hubwarden_web"});
  world.directory.add_group("com.marlo.access_all_services", {"alice"});

  const Dict settings = *read().find_dict("configuration");
  EXPECT_EQ(*settings.find_string("computerName"), "Hub");
  EXPECT_EQ(*settings.find_string("localcastName"), "hub");
  EXPECT_EQ(*settings.find("enableSNMP"), Value(true));
  EXPECT_EQ(*settings.find("enableSSH"), Value(true));
  EXPECT_EQ(*settings.find("enableScreenlink"), Value(false));
  EXPECT_EQ(*settings.find("enableFileSyncAgent"), Value(true));
  EXPECT_EQ(*settings.find("enableClientDiscovery"), Value(false));
  EXPECT_EQ(*settings.find("ntpTimeServe"), Value(true));
  EXPECT_EQ(*settings.find("ntpTimeSync"), Value(true));
  EXPECT_EQ(*settings.find_string("ntpServerName"), "time.example.com");
  EXPECT_EQ(*settings.find_string("previousNTPServerName"), "old.example.com");
  EXPECT_EQ(*settings.find_string("timeZone"), "Europe/Paris");
  EXPECT_EQ(*settings.find_dict("notifications"), notifications);
  EXPECT_EQ(*settings.find_dict("serviceConfig"), (Dict{{"services", Dict()}}));
  EXPECT_EQ(*settings.find_array("availableServices"), (Array{"hubwarden_info", "hubwarden_web"}));
  const Array& lists = *settings.find_array("accessControlLists");
  ASSERT_EQ(lists.size(), 1u);
  EXPECT_EQ(*lists[0].as_dict()->find_string("_id_"), "com.marlo.access_all_services");
}

TEST_F(ReadSettingsTest, ReadStatusIsTheFirstFailingListRead) {
  world.directory.add_group("com.marlo.access_all_services", {"alice"});
  world.directory.fail_get_group("com.marlo.monitor_all_services", platform::kDirectoryNodeUnavailable);
  Dict reply = read();
  EXPECT_EQ(*reply.find("readStatus")->as_unsigned(), static_cast<uint32_t>(platform::kDirectoryNodeUnavailable));
  // The other lists are still read and reported.
  EXPECT_EQ(reply.find_dict("configuration")->find_array("accessControlLists")->size(), 1u);

  world.directory.fail_get_group("com.marlo.admin_all_services", platform::kDirectoryWriteFailed);
  EXPECT_EQ(*read().find("readStatus")->as_unsigned(), static_cast<uint32_t>(platform::kDirectoryWriteFailed));
}

}  // namespace
}  // namespace hubwarden
