// The host's prefix table: the shipped file, what a sandbox maps, and how
// bad entries in a configuration file are reported and skipped.
#include "platform/linux/host_paths.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/file_util.h"
#include "platform/linux/basics_test_support.h"
#include "platform/linux/job_map.h"
#include "platform/linux/metered_interfaces.h"
#include "plist/codec.h"

namespace platform {
namespace {

using testing::ScratchRoot;

// One file configures services, paths and metering; what it ships must be
// what the binary falls back on.
TEST(HostPathsTest, ShippedFileMatchesTheDefaultsAndLeavesNoForeignFolder) {
  testing::CapturedLog log;
  std::optional<std::string> text = read_file(testing::shipped_host_config_path());
  ASSERT_TRUE(text) << testing::shipped_host_config_path();
  plist::Parsed parsed = plist::parse_xml(*text);
  ASSERT_TRUE(parsed.ok() && parsed.value.as_dict()) << parsed.error;
  PathMap from_file;
  apply_path_config(*parsed.value.as_dict(), "shipped", &from_file);
  EXPECT_EQ(from_file.entries(), default_path_map().entries());
  HostServiceMap services;
  std::string error;
  ASSERT_TRUE(apply_host_config(*parsed.value.as_dict(), &services, &error)) << error;
  EXPECT_EQ(services.jobs, default_host_service_map().jobs);
  EXPECT_EQ(services.service_modules, default_host_service_map().service_modules);
  // No extra metered interfaces, said in a form the loader accepts.
  ASSERT_NE(text->find("<key>meteredInterfaces</key>"), std::string::npos);
  ScratchRoot root;
  root.write(kShippedHostConfigPath, *text);
  EXPECT_TRUE(load_metered_interfaces().empty());
  EXPECT_TRUE(log.lines().empty());

  // The module's own folders all land somewhere a Linux system has.
  PathMap map = default_path_map();
  for (const char* path : {"/Library/Preferences/com.marlo.hubwarden_info.plist", "/var/db/.MarloSetupDone",
                           "/private/var/run/SoftwareUpdateStatus.plist", "/Library/Logs/Software Update.log",
                           "/var/db/hubwarden/history.sqlite3", "/var/db/hubwarden/directory/users/a.plist"}) {
    std::string mapped = map.map(path);
    for (const char* foreign : {"/Library/", "/System/", "/private/", "/var/db/"})
      EXPECT_NE(mapped.rfind(foreign, 0), 0u) << path << " -> " << mapped;
  }
  // The settings and the marker files must not share a folder.
  EXPECT_NE(map.map("/Library/Preferences/x"), map.map("/var/db/x"));
  EXPECT_NE(map.map("/var/db/hubwarden/x"), map.map("/var/db/x"));
}

TEST(HostPathsTest, SandboxMapsOnlyWhatItsOwnConfigurationSays) {
  testing::CapturedLog log;
  ScratchRoot root;
  // No configuration inside: nothing mapped, so sandboxes keep the module's
  // own layout.
  EXPECT_TRUE(load_path_map(root.path("/")).empty());

  root.write(kShippedHostConfigPath,
             "<plist version=\"1.0\"><dict><key>paths</key><dict>"
             "<key>/Library/Preferences</key><string>/var/lib/hubwarden/preferences</string>"
             "<key>/var/db</key><string>/var/lib/hubwarden/db</string>"
             "<key>/Library/Logs</key><string>/var/log/hubwarden</string>"
             "</dict></dict></plist>");
  // The administrator's file: one replacement, one removal, one addition,
  // and entries that must be refused without spoiling the others.
  root.write(kHostConfigPath,
             "<plist version=\"1.0\"><dict><key>paths</key><dict>"
             "<key>/var/db</key><string>/srv/state</string>"
             "<key>/Library/Logs</key><string></string>"
             "<key>/private/var/run</key><string>/run/hubwarden</string>"
             "<key>/Library/Preferences/x</key><string>/Library/Preferences/x/y</string>"
             "<key>/Library/Caches</key><string>/../../etc</string>"
             "<key>relative</key><string>/srv</string>"
             "<key>/opt</key><integer>5</integer>"
             "</dict></dict></plist>");
  PathMap map = load_path_map(root.path("/"));
  EXPECT_EQ(map.entries().size(), 3u);
  EXPECT_EQ(map.map("/var/db/.MarloSetupDone"), "/srv/state/.MarloSetupDone");
  EXPECT_EQ(map.map("/Library/Logs/a.log"), "/Library/Logs/a.log");
  EXPECT_EQ(map.map("/private/var/run/s.plist"), "/run/hubwarden/s.plist");
  EXPECT_EQ(map.map("/Library/Preferences/x/z"), "/var/lib/hubwarden/preferences/x/z");
  EXPECT_EQ(map.map("/Library/Caches/c"), "/Library/Caches/c");
  EXPECT_EQ(log.lines().size(), 4u);
  EXPECT_TRUE(log.contains(Priority::Error, "\"/Library/Preferences/x\": \"/Library/Preferences/x\" maps into itself"));
  EXPECT_TRUE(log.contains(Priority::Error, "\"/Library/Caches\": \"/../../etc\" has a \"..\" component"));
  EXPECT_TRUE(log.contains(Priority::Error, "\"relative\""));
  EXPECT_TRUE(log.contains(Priority::Error, "\"/opt\": the target is not a string"));

  // Every target stays under the sandbox.
  Paths paths(root.path("/"), map);
  EXPECT_EQ(paths.resolve("/var/db/.MarloSetupDone"), root.path("/srv/state/.MarloSetupDone"));

  // A broken administrator's file is skipped whole; the shipped one stands.
  for (const char* broken :
       {"<plist version=\"1.0\"><dict><key>paths</key><dict>", "<plist version=\"1.0\"><array/></plist>",
        "<plist version=\"1.0\"><dict><key>paths</key><array/></dict></plist>"}) {
    log.clear();
    root.write(kHostConfigPath, broken);
    PathMap fallback = load_path_map(root.path("/"));
    EXPECT_EQ(fallback.entries().size(), 3u) << broken;
    EXPECT_EQ(fallback.map("/var/db/x"), "/var/lib/hubwarden/db/x") << broken;
    EXPECT_EQ(log.lines().size(), 1u) << broken;
  }
}

TEST(HostPathsTest, MachineRootStartsFromTheDefaults) {
  testing::CapturedLog log;
  // Only meaningful where no host configuration is installed.
  if (file_exists(kShippedHostConfigPath) || file_exists(kHostConfigPath)) GTEST_SKIP();
  EXPECT_EQ(load_path_map("/").entries(), default_path_map().entries());
  EXPECT_EQ(load_path_map("").entries(), default_path_map().entries());
}

}  // namespace
}  // namespace platform
