// "readSettings": key order, sources and defaults. "writeSettings": typed
// keys, the clock and time-server rules, the status of the writes and the
// shape of the reply.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>

#include "platform/file_util.h"
#include "testing/settings_doubles.h"

namespace hubwarden {
namespace {

using testing::keys_of;

constexpr const char* kNtpJob = "/System/Library/LaunchDaemons/org.ntp.ntpd.plist";
constexpr uint64_t kNow = 1700000000;  // the fake clock's time, whole seconds

class SettingsCommandsTest : public ::testing::Test {
 protected:
  Dict read() {
    ReplySlot reply;
    EXPECT_EQ(read_settings(nullptr, reply, &context), nullptr);
    EXPECT_TRUE(reply);
    return reply ? *reply : Dict();
  }
  Dict write(Dict configuration, Dict extra = Dict()) {
    Dict request{{"command", "writeSettings"}, {"configuration", std::move(configuration)}};
    request.merge(extra);
    ReplySlot reply;
    EXPECT_EQ(write_settings(request, reply, &context), nullptr);
    EXPECT_TRUE(reply);
    return reply ? *reply : Dict();
  }
  uint64_t write_status(const Dict& reply) { return *reply.find("writeStatus")->as_unsigned(); }
  std::vector<double> clock_sets_for(Dict configuration) {
    world.clock.set_now(kNow + 0.25);
    size_t before = world.clock.set_times().size();
    write(std::move(configuration));
    std::vector<double> all = world.clock.set_times();
    return {all.begin() + static_cast<long>(before), all.end()};
  }

  testing::SettingsWorld world;
  Dict context;
};
using WriteSettingsTest = SettingsCommandsTest;

TEST_F(WriteSettingsTest, KeysOfTheWrongTypeAreIgnored) {
  Dict reply = write(Dict{{"computerName", 5},
                          {"localcastName", Array()},
                          {"enableSNMP", "YES"},
                          {"enableSSH", "1"},
                          {"enableScreenlink", Dict()},
                          {"enableFileSyncAgent", "YES"},
                          {"enableClientDiscovery", "NO"},
                          {"ntpTimeServe", "YES"},
                          {"ntpTimeSync", "YES"},
                          {"ntpServerName", 7},
                          {"currentTime", "12"},
                          {"cityRecord", "2988507"},
                          {"timeZone", 3},
                          {"accessControlLists", Dict()},
                          {"adminControlLists", "x"},
                          {"monitorControlLists", 1},
                          {"serviceConfig", Array()},
                          {"notifications", "x"}});
  EXPECT_EQ(write_status(reply), 0u);
  EXPECT_TRUE(reply.contains("configuration"));
  EXPECT_TRUE(world.service_manager.set_calls().empty());
  EXPECT_TRUE(world.clock.set_times().empty());
  EXPECT_TRUE(world.directory.writes().empty());
  EXPECT_FALSE(context.contains("previousNTPServerNameStore"));
  EXPECT_FALSE(read_key_from_settings_file("askClientsToIgnoreVantorZeroconfReg"));
  EXPECT_FALSE(read_key_from_settings_file("ServiceConfig"));
  // The cached state was rebuilt all the same.
  EXPECT_EQ(context.find_dict("info")->size(), 17u);
}

TEST_F(WriteSettingsTest, ClockIsSetOnlyWhenMoreThanFiveSecondsOff) {
  EXPECT_TRUE(clock_sets_for(Dict{{"currentTime", kNow + 5}}).empty());
  EXPECT_TRUE(clock_sets_for(Dict{{"currentTime", kNow - 5}}).empty());
  EXPECT_EQ(clock_sets_for(Dict{{"currentTime", kNow + 6}}), std::vector<double>{kNow + 6.0});
  EXPECT_EQ(clock_sets_for(Dict{{"currentTime", kNow - 6}}), std::vector<double>{kNow - 6.0});

  world.clock.fail_set_time(EPERM);
  EXPECT_EQ(write_status(write(Dict{{"currentTime", kNow + 60}})), 100023u);
  EXPECT_EQ(testing::lines_at(world.log, platform::Priority::Notice),
            std::vector<std::string>{"hubwarden_info: [" + std::to_string(::getpid()) + "] settimeofday failed with " +
                                     std::to_string(EPERM)});
}

TEST_F(WriteSettingsTest, NetworkTimeOwnsTheClock) {
  // On before the request.
  world.service_manager.set_job(kNtpJob, true);
  EXPECT_TRUE(clock_sets_for(Dict{{"currentTime", kNow + 3600}}).empty());
  // Switched off by the request: the clock is the console's again.
  EXPECT_EQ(clock_sets_for(Dict{{"ntpTimeSync", false}, {"currentTime", kNow + 3600}}).size(), 1u);
  // Switched on by the request.
  world.service_manager.set_job(kNtpJob, false);
  EXPECT_TRUE(clock_sets_for(Dict{{"ntpTimeSync", true}, {"currentTime", kNow + 3600}}).empty());
  EXPECT_TRUE(clock_sets_for(Dict{{"ntpTimeSync", 1}, {"ntpServerName", "a.example.com"}, {"currentTime", kNow + 3600}})
                  .empty());
}

TEST_F(WriteSettingsTest, NewTimeServerIsStoredUnderItsOwnContextKey) {
  ASSERT_TRUE(platform::write_file_atomically(world.path("/etc/ntp.conf"), "server old.example.com\n"));
  Dict reply = write(Dict{{"ntpServerName", "old.example.com"}});
  EXPECT_FALSE(context.contains("previousNTPServerNameStore"));

  reply = write(Dict{{"ntpServerName", "new.example.com"}});
  EXPECT_EQ(*context.find_string("previousNTPServerNameStore"), "new.example.com");
  // The reply reports a different key, which this command never writes.
  EXPECT_EQ(*reply.find_dict("configuration")->find_string("previousNTPServerName"), "");
}

TEST_F(WriteSettingsTest, GetDetailsFalseAsANumberOnlyGivesAShortReply) {
  EXPECT_EQ(write(Dict(), Dict{{"getDetails", 0}}), (Dict{{"writeStatus", uint64_t{0}}}));
  EXPECT_EQ(write(Dict(), Dict{{"getDetails", false}}), (Dict{{"writeStatus", uint64_t{0}}}));
  for (const Value& details : {Value("NO"), Value(1)}) {
    Dict reply = write(Dict(), Dict{{"getDetails", details}});
    EXPECT_EQ(reply.size(), 3u);
    EXPECT_TRUE(reply.contains("configuration"));
    EXPECT_TRUE(reply.contains("readStatus"));
  }
  // Without a configuration dictionary only the cached state is refreshed.
  ReplySlot reply;
  EXPECT_EQ(write_settings(Dict{{"configuration", "x"}}, reply, &context), nullptr);
  EXPECT_EQ(*reply->find("writeStatus")->as_unsigned(), 0u);
  EXPECT_TRUE(context.contains("info"));
}

TEST_F(WriteSettingsTest, StatusReportsTheFirstFailureAndLaterKeysStillApply) {
  world.service_manager.set_job("org.net-snmp.snmpd", false);
  world.service_manager.fail_job("org.net-snmp.snmpd", 5);
  world.clock.fail_set_time(EPERM);
  world.directory.put_group("com.marlo.access_mail",
                            Dict{{"dsAttrTypeStandard:RecordName", Array{"com.marlo.access_mail"}}});
  write_settings_file(
      Dict{{"ServiceConfig", Dict{{"services", Dict{{"a", Dict{{"configured", true}}}}}, {"consoleNote", "kept"}}}});

  Dict reply =
      write(Dict{{"enableSNMP", true},
                 {"enableClientDiscovery", false},
                 {"currentTime", kNow + 60},
                 {"accessControlLists",
                  Array{Dict{{"_id_", "com.marlo.access_mail"}, {"dsAttrTypeStandard:GroupMembership", Array{"bob"}}}}},
                 {"serviceConfig", Dict{{"services", Dict{{"b", Dict{{"configured", true}}}}}}}});

  EXPECT_EQ(write_status(reply), 1u);
  EXPECT_EQ(world.service_manager.set_calls(),
            (std::vector<platform::FakeServiceManager::SetCall>{{"org.net-snmp.snmpd", true}}));
  EXPECT_EQ(world.clock.set_times().size(), 1u);
  EXPECT_EQ(world.directory.writes().size(), 1u);
  EXPECT_EQ(read_key_from_settings_file("askClientsToIgnoreVantorZeroconfReg"), Value(true));
  EXPECT_EQ(*reply.find_dict("configuration")->find("enableClientDiscovery"), Value(false));
  // The service configuration is merged, not replaced.
  Dict expected{{"services", Dict{{"b", Dict{{"configured", true}}}}}, {"consoleNote", "kept"}};
  EXPECT_EQ(read_key_from_settings_file("ServiceConfig"), Value(expected));
  EXPECT_EQ(*reply.find_dict("configuration")->find_dict("serviceConfig"), expected);
}

TEST_F(WriteSettingsTest, RunningServicesAreMarkedOnlyInsideTheDaemon) {
  world.make_services_ready();
  world.modules.set_state("hubwarden_dns", "RUNNING");
  write(Dict());
  EXPECT_FALSE(read_key_from_settings_file("ServiceConfig"));

  world.run_under_daemon();
  write(Dict());
  Value stored = read_key_from_settings_file("ServiceConfig").value_or(Value());
  EXPECT_EQ(stored, Value(Dict{{"services", Dict{{"com.marlo.Overseer.DNS", Dict{{"configured", true}}}}}}));
}

using ReadSettingsTest = SettingsCommandsTest;

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
  std::string flags;
  for (const char* key : {"enableSNMP", "enableSSH", "enableScreenlink", "enableFileSyncAgent", "enableClientDiscovery",
                          "ntpTimeServe", "ntpTimeSync"})
    flags += *settings.find(key) == Value(true) ? '1' : *settings.find(key) == Value(false) ? '0' : '?';
  EXPECT_EQ(flags, "1101011");
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
