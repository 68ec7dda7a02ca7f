#include "settings/settings_file.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "platform/file_util.h"
#include "plist/codec.h"
#include "request/spine_test_support.h"

namespace hubwarden {
namespace {

using testing::SandboxRoot;

#if defined(HUBWARDEN_SANITIZED) || !defined(NDEBUG)
// Unoptimised and sanitized builds make each whole-file rewrite several
// times slower; the optimised build runs the full count.
constexpr int kUpdatesPerThread = 250;
#else
constexpr int kUpdatesPerThread = 1250;  // 8 threads: 10,000 updates in all
#endif

class SettingsFileTest : public ::testing::Test {
 protected:
  ~SettingsFileTest() override { reset_settings_lock_for_testing(); }
  std::string file() const { return root_.path(kSettingsFilePath); }
  SandboxRoot root_;
};

TEST_F(SettingsFileTest, MissingFileReadsAsNothingAndWritersCreateIt) {
  EXPECT_FALSE(read_settings_file());
  EXPECT_FALSE(read_key_from_settings_file("ServiceConfig"));
  overwrite_key_in_settings_file(true, "noVantorZeroconfReg");
  std::optional<plist::Dict> settings = read_settings_file();
  ASSERT_TRUE(settings);
  EXPECT_EQ(settings->size(), 1u);
  EXPECT_EQ(*read_key_from_settings_file("noVantorZeroconfReg"), plist::Value(true));
}

TEST_F(SettingsFileTest, UpdateMergesWhileOverwriteReplacesWhole) {
  plist::Dict services{{"com.marlo.Overseer.DNS", plist::Dict{{"configured", true}}}};
  overwrite_key_in_settings_file(plist::Dict{{"services", services}}, "ServiceConfig");
  update_key_in_settings_file({{"a", 1}}, "ServiceConfig");
  plist::Value config = *read_key_from_settings_file("ServiceConfig");
  EXPECT_EQ(*config.as_dict()->find_dict("services"), services);
  EXPECT_EQ(*config.as_dict()->find("a"), plist::Value(1));

  overwrite_key_in_settings_file(plist::Dict{{"b", 2}}, "ServiceConfig");
  config = *read_key_from_settings_file("ServiceConfig");
  EXPECT_EQ(config.as_dict()->size(), 1u);

  update_keys_in_settings_file({{"x", "1"}, {"ServiceConfig", plist::Dict{}}});
  plist::Dict all = *read_settings_file();
  EXPECT_EQ(*all.find("x"), plist::Value("1"));
  EXPECT_TRUE(all.find_dict("ServiceConfig")->empty());

  // A stored non-dictionary under the key is replaced by the merged changes.
  overwrite_key_in_settings_file("text", "NotificationsSettings");
  update_key_in_settings_file({{"c", 3}}, "NotificationsSettings");
  EXPECT_EQ(read_key_from_settings_file("NotificationsSettings")->as_dict()->size(), 1u);
}

TEST_F(SettingsFileTest, CorruptFileIsReplacedNotRepaired) {
  for (const char* junk : {"not a plist", "<?xml version=\"1.0\"?><plist version=\"1.0\"><array/></plist>", ""}) {
    ASSERT_TRUE(platform::write_file_atomically(file(), junk));
    EXPECT_FALSE(read_settings_file()) << junk;
    update_key_in_settings_file({{"k", 1}}, "NotificationsSettings");
    plist::Dict settings = *read_settings_file();
    EXPECT_EQ(settings.size(), 1u);
    EXPECT_TRUE(settings.find_dict("NotificationsSettings"));
  }
}

TEST_F(SettingsFileTest, ConcurrentUpdatesOfDifferentKeysAreAllKept) {
  create_settings_lock();
  constexpr int kThreads = 8;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      std::string key = "thread-" + std::to_string(t);
      for (int i = 0; i < kUpdatesPerThread; ++i)
        update_key_in_settings_file({{"k" + std::to_string(i), i}}, key);
    });
  }
  // Readers interleave with the writers and must never see a torn file.
  std::thread reader([] {
    for (int i = 0; i < 200; ++i) read_settings_file();
  });
  for (auto& th : threads) th.join();
  reader.join();
  plist::Dict settings = *read_settings_file();
  for (int t = 0; t < kThreads; ++t) {
    const plist::Dict* mine = settings.find_dict("thread-" + std::to_string(t));
    ASSERT_TRUE(mine);
    EXPECT_EQ(mine->size(), static_cast<size_t>(kUpdatesPerThread)) << "thread " << t << " lost updates";
  }
}

}  // namespace
}  // namespace hubwarden
