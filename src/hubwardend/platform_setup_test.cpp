#include "hubwardend/platform_setup.h"

#include <gtest/gtest.h>

#include "platform/host_services.h"
#include "platform/linux/basics_test_support.h"
#include "platform/linux/job_map.h"
#include "platform/paths.h"

namespace hubwardend {
namespace {

TEST(HostTest, StartsOnceAtATimeAndReloadsItsConfigurationInPlace) {
  platform::testing::ScratchDir root;
  plist::Dict context;
  HostOptions options;
  options.root = root.dir();
  options.default_user = "operator";
  options.context = &context;

  std::string error;
  std::unique_ptr<Host> host = Host::start(options, &error);
  ASSERT_TRUE(host) << error;
  EXPECT_EQ(host->default_user(), "operator");
  EXPECT_EQ(&platform::get<platform::ModuleManager>(), &host->modules());
  EXPECT_FALSE(platform::has<platform::RunLoop>()) << "the command line has no run loop";

  EXPECT_FALSE(Host::start(options, &error));
  EXPECT_EQ(error, "another host is already running in this process");

  // A reload puts a new path table in effect behind the same published
  // object; a broken file is refused whole and changes nothing.
  platform::Paths* paths = &platform::get<platform::Paths>();
  EXPECT_EQ(platform::resolve("/Library/Preferences/x"), root.dir() + "/Library/Preferences/x");
  root.write(platform::kHostConfigPath,
             "<plist version=\"1.0\"><dict><key>paths</key><dict><key>/Library/Preferences</key>"
             "<string>/var/lib/prefs</string></dict></dict></plist>");
  EXPECT_EQ(host->reload_configuration(), std::nullopt);
  EXPECT_EQ(&platform::get<platform::Paths>(), paths);
  EXPECT_EQ(platform::resolve("/Library/Preferences/x"), root.dir() + "/var/lib/prefs/x");

  root.write(platform::kHostConfigPath, "<plist version=\"1.0\"><dict><key>paths</key>");
  std::optional<std::string> refused = host->reload_configuration();
  ASSERT_TRUE(refused);
  EXPECT_NE(refused->find("hubwardend.conf.plist"), std::string::npos) << *refused;
  EXPECT_EQ(platform::resolve("/Library/Preferences/x"), root.dir() + "/var/lib/prefs/x");

  host.reset();
  EXPECT_FALSE(platform::has<platform::ModuleManager>()) << "services are withdrawn with the host";
  options.root = root.path("/no/such/folder");
  EXPECT_FALSE(Host::start(options, &error));
  EXPECT_NE(error.find("is not a directory"), std::string::npos);
}

}  // namespace
}  // namespace hubwardend
