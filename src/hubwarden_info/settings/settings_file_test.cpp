#include "settings/settings_file.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <shared_mutex>
#include <thread>
#include <vector>

#include "platform/fake/fake_log.h"
#include "platform/file_lock.h"
#include "platform/file_util.h"
#include "platform/registry.h"
#include "plist/codec.h"
#include "request/spine_test_support.h"

namespace hubwarden {
namespace {

using testing::SandboxRoot;

// Every update syncs the file to disk, so the count is kept modest: lost
// updates show up within the first few dozen when the locking is wrong.
constexpr int kUpdatesPerThread = 150;

class SettingsFileTest : public ::testing::Test {
 protected:
  SettingsFileTest() : installed_log_(&log_) {}
  ~SettingsFileTest() override {
    reset_settings_lock_for_testing();
    set_settings_lock_timeout_for_testing(platform::FileLock::kDefaultTimeout);
  }
  std::string file() const { return root_.path(kSettingsFilePath); }
  std::string contents() const { return platform::read_file(file()).value_or("<none>"); }
  // The files a damaged settings file was moved aside to.
  std::vector<std::string> set_aside_files() const {
    std::vector<std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(root_.path("/Library/Preferences")))
      if (entry.path().filename().string().find(".plist.corrupt-") != std::string::npos)
        found.push_back(entry.path().string());
    return found;
  }

  SandboxRoot root_;
  platform::FakeLog log_;

 private:
  platform::testing::ScopedService<platform::Log> installed_log_;
};

TEST_F(SettingsFileTest, MissingFileReadsAsNothingUpdateMergesOverwriteReplacesWhole) {
  EXPECT_FALSE(read_settings_file());
  EXPECT_FALSE(read_key_from_settings_file("ServiceConfig"));
  overwrite_key_in_settings_file(true, "noVantorZeroconfReg");
  EXPECT_EQ(*read_settings_file(), (plist::Dict{{"noVantorZeroconfReg", true}}));

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
  EXPECT_EQ(all.size(), 3u);
  EXPECT_EQ(*all.find("x"), plist::Value("1"));
  EXPECT_TRUE(all.find_dict("ServiceConfig")->empty());

  // A stored non-dictionary under the key is replaced by the merged changes.
  overwrite_key_in_settings_file("text", "NotificationsSettings");
  update_key_in_settings_file({{"c", 3}}, "NotificationsSettings");
  EXPECT_EQ(read_key_from_settings_file("NotificationsSettings")->as_dict()->size(), 1u);
}

TEST_F(SettingsFileTest, CorruptFileIsSetAsideThenReplaced) {
  const std::vector<std::string> junk = {"not a plist",
                                         "<?xml version=\"1.0\"?><plist version=\"1.0\"><array/></plist>",
                                         "<plist><dict><key>truncated</key>"};
  for (size_t i = 0; i < junk.size(); ++i) {
    ASSERT_TRUE(platform::write_file_atomically(file(), junk[i]));
    EXPECT_FALSE(read_settings_file()) << junk[i];
    EXPECT_EQ(contents(), junk[i]) << "a reader must leave the file alone";
    if (i == 2)
      write_settings_file({{"k", 1}});
    else
      update_key_in_settings_file({{"k", 1}}, "NotificationsSettings");
    ASSERT_TRUE(read_settings_file()) << junk[i];
    EXPECT_EQ(read_settings_file()->size(), 1u);
    // Every damaged file keeps its own copy, even within the same second.
    std::vector<std::string> aside = set_aside_files();
    ASSERT_EQ(aside.size(), i + 1);
    bool kept = false;
    for (const std::string& path : aside) kept |= platform::read_file(path) == junk[i];
    EXPECT_TRUE(kept) << junk[i];
  }
  EXPECT_TRUE(log_.contains(platform::Priority::Error, "hubwarden_info: the settings file"));
  EXPECT_TRUE(log_.contains("moved aside to"));

  // An empty file has nothing to keep and is simply replaced.
  ASSERT_TRUE(platform::write_file_atomically(file(), ""));
  overwrite_key_in_settings_file(true, "noVantorZeroconfReg");
  EXPECT_EQ(set_aside_files().size(), junk.size());
  EXPECT_EQ(read_settings_file()->size(), 1u);
}

TEST_F(SettingsFileTest, WriteThatWouldPassTheSizeLimitLeavesTheFileAsItWas) {
  update_keys_in_settings_file({{"small", "value"}});
  const std::string before = contents();
  std::string big(kMaxSettingsFileBytes, 'x');
  overwrite_key_in_settings_file(big, "ServiceConfig");
  EXPECT_EQ(contents(), before);
  EXPECT_FALSE(log_.contains("hubwarden_info:"));

  // Values that fit each on their own but not together are refused too.
  std::string half(kMaxSettingsFileBytes / 2 + 1, 'y');
  update_key_in_settings_file({{"a", half}}, "ServiceConfig");
  const std::string with_half = contents();
  ASSERT_NE(with_half, before);
  update_key_in_settings_file({{"b", half}}, "ServiceConfig");
  EXPECT_EQ(contents(), with_half);
  write_settings_file({{"whole", big}});
  EXPECT_EQ(contents(), with_half);
  EXPECT_LE(contents().size(), kMaxSettingsFileBytes);
}

// Before any idle pass a reader in the middle of its read still holds a
// writer off: the lock exists from the first use, not from pass zero.
TEST_F(SettingsFileTest, WriteBeforeAnyIdlePassWaitsForAReader) {
  update_keys_in_settings_file({{"old", 1}});
  std::shared_mutex* lock = gPrefsFileLock.load();
  ASSERT_NE(lock, nullptr);
  lock->lock_shared();  // a reader between its read and its return
  std::atomic<bool> written{false};
  std::thread writer([&] {
    update_keys_in_settings_file({{"new", 2}});
    written = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(150));
  EXPECT_FALSE(written) << "the write went past a reader holding the lock";
  lock->unlock_shared();
  writer.join();
  EXPECT_TRUE(read_settings_file()->contains("new"));
}

// No idle pass has run here: the lock must guard from the first use on.
TEST_F(SettingsFileTest, ConcurrentUpdatesOfDifferentKeysAreAllKept) {
  constexpr int kThreads = 8;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      std::string key = "thread-" + std::to_string(t);
      for (int i = 0; i < kUpdatesPerThread; ++i) update_key_in_settings_file({{"k" + std::to_string(i), i}}, key);
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

// A command-line run of the host and the daemon are separate processes:
// only the lock file keeps their read-merge-writes apart.
TEST_F(SettingsFileTest, UpdatesFromSeveralProcessesAreAllKept) {
  constexpr int kProcesses = 6;
  constexpr int kUpdatesPerProcess = 40;
  update_keys_in_settings_file({{"before", true}});
  std::vector<pid_t> children;
  for (int p = 0; p < kProcesses; ++p) {
    pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      // Half the children behave like a daemon that has had its first idle
      // pass, half like a command-line run that never makes the lock.
      if (p % 2) create_settings_lock();
      std::string key = "process-" + std::to_string(p);
      for (int i = 0; i < kUpdatesPerProcess; ++i) {
        if (i % 2)
          update_key_in_settings_file({{"k" + std::to_string(i), i}}, key);
        else
          update_keys_in_settings_file({{key + "-top-" + std::to_string(i), i}});
        read_settings_file();
      }
      ::_exit(0);
    }
    children.push_back(pid);
  }
  for (pid_t pid : children) {
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  plist::Dict settings = *read_settings_file();
  EXPECT_EQ(settings.size(), 1u + kProcesses * (1u + kUpdatesPerProcess / 2));
  for (int p = 0; p < kProcesses; ++p) {
    const plist::Dict* mine = settings.find_dict("process-" + std::to_string(p));
    ASSERT_TRUE(mine) << "process " << p;
    EXPECT_EQ(mine->size(), static_cast<size_t>(kUpdatesPerProcess / 2)) << "process " << p << " lost updates";
  }
  EXPECT_FALSE(log_.contains("hubwarden_info:"));
}

TEST_F(SettingsFileTest, WriterThatCannotGetTheLockWritesNothingButReadersStillRead) {
  update_keys_in_settings_file({{"kept", 1}});
  const std::string before = contents();
  set_settings_lock_timeout_for_testing(std::chrono::milliseconds(50));
  {
    // Another holder: a separate open of the lock file conflicts like
    // another process would.
    std::optional<platform::FileLock> other =
        platform::FileLock::acquire(root_.path(kSettingsLockPath), platform::FileLock::Mode::Exclusive);
    ASSERT_TRUE(other);
    update_keys_in_settings_file({{"lost", 2}});
    overwrite_key_in_settings_file(3, "lost");
    EXPECT_EQ(contents(), before);
    EXPECT_FALSE(log_.contains("hubwarden_info:"));
    ASSERT_TRUE(read_key_from_settings_file("kept"));
  }
  update_keys_in_settings_file({{"after", 4}});
  EXPECT_TRUE(read_key_from_settings_file("after"));
}

}  // namespace
}  // namespace hubwarden
