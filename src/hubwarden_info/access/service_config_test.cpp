// Service configuration, running services and the services dictionary.
#include "access/service_config.h"

#include <gtest/gtest.h>

#include "platform/file_util.h"
#include "request/idle_driver.h"
#include "testing/settings_doubles.h"

namespace hubwarden {
namespace {

using platform::DirectoryServer;

class ServiceConfigTest : public ::testing::Test {
 protected:
  Value stored(const char* key) { return read_key_from_settings_file(key).value_or(Value()); }
  void mark_setup_done() { ASSERT_TRUE(platform::write_file_atomically(world.path(kSetupDoneMarker), "")); }

  testing::SettingsWorld world;
  Dict context{{"user", "alice"}};
};

TEST_F(ServiceConfigTest, ServicesDictionaryCountsOnlyRunningServicesAndWaitsForTheTable) {
  world.modules.set_state("hubwarden_dns", "RUNNING");
  world.modules.set_state("hubwarden_mail", "ON");
  world.modules.set_state("hubwarden_web", "STARTING");
  world.modules.set_state("hubwarden_ftp", "RUNNING_WITH_ISSUE");
  world.modules.set_state("hubwarden_dirserv", "RUNNING");
  world.modules.set_module_names({"hubwarden_info", "hubwarden_dns"});
  world.modules.set_reply("hubwarden_sharing", "getSharePointList",
                          Dict{{"sharePointList", Array{Dict{{"name", "Backups"}, {"isBackvaultBackup", true}},
                                                         Dict{{"name", "Public"}, {"isBackvaultBackup", false}},
                                                         Dict{{"name", "Old"}, {"isBackvaultBackup", "YES"}}}}});
  world.directory.set_servers({{"127.0.0.1", DirectoryServer::Kind::Ldap},
                               {"ldap.example.com", DirectoryServer::Kind::Ldap},
                               {"corp.example.com", DirectoryServer::Kind::ActiveDirectory},
                               {"nis.example.com", DirectoryServer::Kind::Other}});

  // Before the idle pass numbered 0 there is nothing to report.
  EXPECT_FALSE(build_services_dict(false, false, &context));
  EXPECT_FALSE(available_services());
  EXPECT_TRUE(get_running_services_client_ids(&context).empty());
  EXPECT_TRUE(world.modules.calls().empty());

  world.make_services_ready();
  create_auth_string();
  std::optional<Dict> console = build_services_dict(false, false, &context);
  ASSERT_TRUE(console);
  Dict expected_ds{{"parentDirServers", Array{Dict{{"name", "ldap.example.com"}, {"type", "ldap"}},
                                              Dict{{"name", "corp.example.com"}, {"type", "ad"}}}}};
  EXPECT_EQ(*console, (Dict{{"DNS", "1"},
                            {"Mail", "1"},
                            {"DirectoryServices", expected_ds},
                            {"Backvault", Array{"Backups", "Old"}}}));
  for (const auto& call : world.modules.calls()) EXPECT_EQ(call.user, "alice");

  std::optional<Dict> advertised = build_services_dict(true, true, nullptr);
  ASSERT_TRUE(advertised);
  EXPECT_EQ(*advertised->find_string("DirectoryServices"), "1");
  const plist::Data* auth = advertised->find("authData")->as_data();
  ASSERT_TRUE(auth);
  EXPECT_EQ(std::string(auth->begin(), auth->end()), *auth_string());
  EXPECT_EQ(*advertised->find_string("autoConfigIgnore"), "1");
  EXPECT_FALSE(advertised->contains("Backvault"));
  EXPECT_EQ(world.modules.calls().back().user, "root");

  // Starting and limping services count as running for the configuration.
  Array running = get_running_services_client_ids(&context);
  EXPECT_EQ(running.size(), 5u);
  EXPECT_NE(std::find(running.begin(), running.end(), Value("com.marlo.Overseer.Web")), running.end());
  EXPECT_EQ(*available_services(), (Array{"hubwarden_info", "hubwarden_dns"}));
}

TEST_F(ServiceConfigTest, DirectoryInfoLeavesOutTheLoopbackServer) {
  world.directory.set_servers({{"127.0.0.1", DirectoryServer::Kind::Ldap}});
  EXPECT_EQ(build_ds_info(&context), (Dict{{"parentDirServers", Array()}}));
  EXPECT_TRUE(build_backvault_info(&context).empty());
}

TEST_F(ServiceConfigTest, MarkingReplacesRunningEntriesWholeAndKeepsTheRest) {
  world.make_services_ready();
  world.modules.set_state("hubwarden_dns", "RUNNING");
  world.modules.set_state("hubwarden_web", "STARTING");
  world.modules.set_state("hubwarden_mail", "STOPPED");
  Value config(Dict{{"services", Dict{{"com.marlo.Overseer.Web", Dict{{"configured", false}, {"port", 8080}}},
                                      {"com.marlo.Overseer.Mail", Dict{{"configured", false}, {"relay", "x"}}}}},
                    {"consoleNote", "kept"}});

  EXPECT_EQ(mark_running_services_configured(&context, &config), nullptr);

  Dict services = *stored("ServiceConfig").as_dict()->find_dict("services");
  EXPECT_EQ(services, (Dict{{"com.marlo.Overseer.Web", Dict{{"configured", true}}},
                            {"com.marlo.Overseer.Mail", Dict{{"configured", false}, {"relay", "x"}}},
                            {"com.marlo.Overseer.DNS", Dict{{"configured", true}}}}));
  EXPECT_EQ(*stored("ServiceConfig").as_dict()->find_string("consoleNote"), "kept");
  EXPECT_EQ(stored("serviceConfigForUpgradeChecked"), Value(true));
  EXPECT_EQ(testing::lines_at(world.log, platform::Priority::Error),
            std::vector<std::string>{"hubwarden_info: mark_running_services_configured(): marked running services "
                                     "configured: com.marlo.Overseer.DNS, com.marlo.Overseer.Web"});

  // A missing or damaged configuration starts from nothing.
  Value damaged("not a dictionary");
  write_settings_file(Dict());
  mark_running_services_configured(nullptr, &damaged);
  EXPECT_EQ(stored("ServiceConfig").as_dict()->find_dict("services")->size(), 2u);
}

TEST_F(ServiceConfigTest, ReadingMarksRunningServicesOnceAfterSetup) {
  world.modules.set_state("hubwarden_dns", "RUNNING");
  world.make_services_ready();
  ReplySlot reply;

  // Without the setup-done marker nothing is ever marked.
  EXPECT_EQ(read_service_config(nullptr, reply, &context), nullptr);
  EXPECT_EQ(*reply, (Dict{{"configuration", Dict()}, {"readStatus", 0}}));
  EXPECT_FALSE(read_settings_file());

  // Nor before the services table exists.
  mark_setup_done();
  reset_services_table_for_testing();
  read_service_config(nullptr, reply, &context);
  EXPECT_FALSE(read_key_from_settings_file("ServiceConfig"));

  world.make_services_ready();
  read_service_config(nullptr, reply, &context);
  Dict marked{{"services", Dict{{"com.marlo.Overseer.DNS", Dict{{"configured", true}}}}}};
  EXPECT_EQ(*reply->find_dict("configuration"), marked);

  // The check has run: a service started later is left to the console.
  world.modules.set_state("hubwarden_mail", "RUNNING");
  read_service_config(nullptr, reply, &context);
  EXPECT_EQ(*reply->find_dict("configuration"), marked);

  // A service configured by hand stops the check without setting its flag.
  write_settings_file(Dict{{"ServiceConfig", Dict{{"services", Dict{{"x", Dict{{"configured", true}}}}}}}});
  read_service_config(nullptr, reply, &context);
  EXPECT_EQ(reply->find_dict("configuration")->find_dict("services")->size(), 1u);
  EXPECT_FALSE(read_key_from_settings_file("serviceConfigForUpgradeChecked"));
}

TEST_F(ServiceConfigTest, WritingMergesIntoTheStoredConfiguration) {
  write_settings_file(Dict{{"ServiceConfig", Dict{{"services", Dict{{"a", Dict{{"configured", true}}}}},
                                                  {"consoleNote", "kept"}}}});
  ReplySlot reply;

  Dict not_a_dictionary{{"configuration", "services"}};
  write_service_config(&not_a_dictionary, reply, &context);
  EXPECT_FALSE(read_key_from_settings_file("serviceConfigForUpgradeChecked"));
  EXPECT_EQ(reply->size(), 2u);

  Dict request{{"configuration", Dict{{"services", Dict{{"b", Dict{{"configured", true}}}}}}}};
  EXPECT_EQ(write_service_config(&request, reply, &context), nullptr);
  Dict expected{{"services", Dict{{"b", Dict{{"configured", true}}}}}, {"consoleNote", "kept"}};
  EXPECT_EQ(*reply, (Dict{{"configuration", expected}, {"writeStatus", 0}}));
  EXPECT_EQ(stored("serviceConfigForUpgradeChecked"), Value(true));
}

}  // namespace
}  // namespace hubwarden
