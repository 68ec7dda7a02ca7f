// The host's service modules: which are loaded, and what they answer.
#include "hubwardend/service_modules.h"

#include <gtest/gtest.h>

#include "platform/fake/fake_service_manager.h"
#include "platform/linux/basics_test_support.h"
#include "platform/linux/systemd_service_manager.h"

namespace hubwardend {
namespace {

std::vector<std::string> names_of(const std::vector<std::unique_ptr<ServiceModule>>& modules) {
  std::vector<std::string> names;
  for (const auto& module : modules) names.push_back(module->name());
  return names;
}

std::optional<std::string> state_of(ServiceModule& module) {
  std::optional<plist::Dict> reply = module.handle(plist::Dict{{"command", "getState"}}, "root");
  if (!reply) return std::nullopt;
  EXPECT_EQ(reply->size(), 1u);
  const std::string* state = reply->find_string("state");
  return state ? std::optional<std::string>(*state) : std::nullopt;
}

TEST(ServiceModules, OnlyModulesWithAnInstalledUnitAreLoadedAndFollowIt) {
  auto units = std::make_shared<platform::FakeServiceManager>();
  units->set_unit("apache2.service", "active");  // second candidate of the web module
  units->set_unit("postfix.service", "inactive");
  units->set_unit("dovecot.service", "active");  // postfix comes first and wins
  units->set_unit("radicale.service", "activating");

  auto modules = load_service_modules(platform::default_host_service_map(), units);
  // Configuration order; calendar and address book share one unit.
  EXPECT_EQ(names_of(modules), (std::vector<std::string>{"hubwarden_addressbook", "hubwarden_calendar",
                                                         "hubwarden_mail", "hubwarden_web"}));
  auto* mail = dynamic_cast<UnitServiceModule*>(modules[2].get());
  ASSERT_NE(mail, nullptr);
  EXPECT_EQ(mail->unit(), "postfix.service");
  EXPECT_EQ(state_of(*modules[0]), "STARTING");
  EXPECT_EQ(state_of(*modules[3]), "RUNNING");
  // The state follows the unit from one request to the next, through every
  // state a unit can be in.
  for (auto [active, expected] : std::vector<std::pair<std::string, std::string>>{{"active", "RUNNING"},
                                                                                  {"reloading", "RUNNING"},
                                                                                  {"activating", "STARTING"},
                                                                                  {"deactivating", "STOPPED"},
                                                                                  {"inactive", "STOPPED"},
                                                                                  {"failed", "STOPPED"},
                                                                                  {"", "STOPPED"}}) {
    units->set_unit("postfix.service", active);
    EXPECT_EQ(state_of(*modules[2]), expected) << active;
  }
  // A service whose users are not counted answers only getState, spelled
  // exactly.
  for (const plist::Dict& request : {plist::Dict{{"command", "getConnectedUsers"}}, plist::Dict{{"command", 5}},
                                     plist::Dict{}, plist::Dict{{"command", "getstate"}}})
    EXPECT_FALSE(modules[3]->handle(request, "root"));

  EXPECT_TRUE(load_service_modules(platform::HostServiceMap{}, units).empty());
}

TEST(ServiceModules, LoadedFromUnitFilesUnderTheRoot) {
  platform::testing::ScratchRoot root;
  root.write("/lib/systemd/system/bind9.service", "[Service]\nExecStart=/usr/sbin/named -f\n");
  root.write("/usr/lib/systemd/system/smbd.service", "[Service]\nExecStart=/usr/sbin/smbd --foreground\n");
  root.link("/etc/systemd/system/cups.service", "/dev/null");  // masked but installed
  root.write("/etc/hubwarden/hubwardend.conf.plist",
             "<plist version=\"1.0\"><dict><key>serviceModules</key><dict>"
             "<key>hubwarden_smb</key><array/></dict></dict></plist>");
  root.add_process(300, "named");

  auto modules = load_service_modules();
  EXPECT_EQ(names_of(modules), (std::vector<std::string>{"hubwarden_dns", "hubwarden_print"}));
  ASSERT_EQ(modules.size(), 2u);
  EXPECT_EQ(state_of(*modules[0]), "RUNNING");
  EXPECT_EQ(state_of(*modules[1]), "STOPPED");
}

}  // namespace
}  // namespace hubwardend
