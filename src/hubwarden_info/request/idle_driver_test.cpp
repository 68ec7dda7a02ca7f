#include "request/idle_driver.h"

#include <gtest/gtest.h>

#include "access/services_table.h"
#include "platform/fake/fake_clock.h"
#include "platform/file_util.h"
#include "request/globals.h"
#include "request/module.h"
#include "request/operations.h"
#include "request/spine_test_support.h"
#include "settings/settings_file.h"

namespace hubwarden {
namespace {

using testing::Installed;
using testing::SandboxRoot;

class IdleDriverTest : public ::testing::Test {
 protected:
  IdleDriverTest() : installed_clock_(&clock_) { reset_module_globals_for_testing(); }
  ~IdleDriverTest() override { reset_module_globals_for_testing(); }

  int pass(const char* number) {
    const char* argv[] = {"hubwardend", "idle", number};
    return hubwarden_info().doProcessArgsWithArgc(3, argv, &context_, -1);
  }

  SandboxRoot root_;
  platform::FakeClock clock_{1.8e9, std::nullopt};
  Installed<platform::Clock> installed_clock_;
  Dict context_{
      {"cpuUsageStore", 1},         {"networkThroughputStore", 2}, {"restartRequired", true}, {"swupdateActive", true},
      {"swupdateScanRequested", 1}, {"swupdatesArray", Array{}},   {"bootTime", 5.0},         {"keepMe", "x"}};
};

TEST_F(IdleDriverTest, FirstPassClearsTransientStateAndMakesTheModuleWideObjects) {
  clock_.set_boot_time(1.7e9);
  EXPECT_EQ(pass("0"), 0);
  for (const char* gone : {"cpuUsageStore", "networkThroughputStore", "restartRequired", "swupdateActive",
                           "swupdateScanRequested", "swupdatesArray"})
    EXPECT_FALSE(context_.contains(gone)) << gone;
  EXPECT_EQ(*context_.find("bootTime"), Value(1.7e9));
  EXPECT_TRUE(context_.find("contextDirty")->number_is_true());
  ASSERT_TRUE(context_.find_dict("info"));
  EXPECT_EQ(context_.find_dict("info")->size(), 17u);
  EXPECT_TRUE(context_.contains("keepMe"));
  EXPECT_TRUE(services_ready());
  EXPECT_TRUE(auth_string().has_value());
  EXPECT_EQ(auth_string()->size(), 36u);
  EXPECT_NE(gPrefsFileLock.load(), nullptr);
  EXPECT_TRUE(gRunningUnderHubwardend);

  // Without a boot time the stale one is removed rather than kept.
  clock_.set_boot_time(std::nullopt);
  context_.set("bootTime", 5.0);
  pass("0");
  EXPECT_FALSE(context_.contains("bootTime"));
}

TEST_F(IdleDriverTest, OnlyAnIdleVectorRunsAndOnlyZeroSpelledZeroIsTheFirstPass) {
  // No update job under way: the queued install stays queued, untouched by
  // a later pass, instead of being launched.
  context_.remove("swupdateActive");
  Dict before = context_;
  const char* not_idle[] = {"hubwardend", "busy", "0"};
  EXPECT_EQ(hubwarden_info().doProcessArgsWithArgc(3, not_idle, &context_, -1), 0);
  const char* too_short[] = {"hubwardend"};
  EXPECT_EQ(hubwarden_info().doProcessArgsWithArgc(1, too_short, &context_, -1), 0);
  EXPECT_EQ(context_, before);
  EXPECT_FALSE(services_ready());

  // Later passes only do the periodic work: no clearing, no new boot time,
  // no cached-state rebuild, no module-wide objects.
  EXPECT_EQ(pass("5"), 0);
  EXPECT_TRUE(context_.contains("swupdatesArray"));
  EXPECT_EQ(*context_.find("bootTime"), Value(5.0));
  EXPECT_FALSE(context_.contains("info"));
  EXPECT_FALSE(services_ready());
  EXPECT_FALSE(auth_string());
  EXPECT_FALSE(gRunningUnderHubwardend);

  // "00" and a word both read as pass zero, which makes the module-wide
  // objects, but only "0" is the first pass that clears and rebuilds.
  EXPECT_EQ(pass("00"), 0);
  EXPECT_TRUE(context_.contains("cpuUsageStore"));
  EXPECT_FALSE(context_.contains("info"));
  EXPECT_TRUE(services_ready());
  EXPECT_TRUE(gRunningUnderHubwardend);
  reset_module_globals_for_testing();
  EXPECT_EQ(pass("idle"), 0);
  EXPECT_TRUE(services_ready());
  // Huge pass numbers saturate instead of overflowing.
  EXPECT_EQ(pass("99999999999999999999999"), 0);
}

TEST_F(IdleDriverTest, ResultCodesFollowTheFirstErrorByText) {
  EXPECT_EQ(idle_result_code(nullptr), 0);
  std::string malloc_copy = "CANNOT_MALLOC_ERR";  // compared by text, not pointer
  EXPECT_EQ(idle_result_code(malloc_copy.c_str()), 12);
  EXPECT_EQ(idle_result_code("SETTING_NOT_FOUND_ERR"), 2);
  EXPECT_EQ(idle_result_code("CANNOT_LAUNCH_UPDATE_ERROR"), 2);
  EXPECT_EQ(idle_result_code("UNKNOWN_SORT_KEY_ERR"), 13);
}

TEST_F(IdleDriverTest, CorruptSettingsFileDoesNotStopThePass) {
  platform::write_file_atomically(root_.path(kSettingsFilePath), "not a property list");
  platform::write_file_atomically(root_.path(kSetupDoneMarker), "");
  EXPECT_EQ(pass("0"), 0);
  EXPECT_EQ(pass("1"), 0);
}

}  // namespace
}  // namespace hubwarden
