#include "platform/file_lock.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

namespace platform {
namespace {

using Mode = FileLock::Mode;
constexpr std::chrono::milliseconds kShort{30};

class FileLockTest : public ::testing::Test {
 protected:
  FileLockTest() {
    std::string tmpl = (std::filesystem::temp_directory_path() / "hubwarden-lock-XXXXXX").string();
    dir_ = ::mkdtemp(tmpl.data());
  }
  ~FileLockTest() override { std::filesystem::remove_all(dir_); }
  std::string path(const char* name) const { return dir_ + "/" + name; }

  std::string dir_;
};

TEST_F(FileLockTest, ReadersShareWritersWaitThenGiveUp) {
  std::optional<FileLock> reader = FileLock::acquire(path("x.lock"), Mode::Shared, kShort);
  ASSERT_TRUE(reader);
  EXPECT_TRUE(FileLock::acquire(path("x.lock"), Mode::Shared, kShort));
  errno = 0;
  EXPECT_FALSE(FileLock::acquire(path("x.lock"), Mode::Exclusive, kShort));
  EXPECT_EQ(errno, ETIMEDOUT);

  // A holder that lets go within the wait is waited for.
  std::thread release([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    reader.reset();
  });
  std::optional<FileLock> writer = FileLock::acquire(path("x.lock"), Mode::Exclusive, std::chrono::seconds(10));
  release.join();
  ASSERT_TRUE(writer);
  EXPECT_FALSE(FileLock::acquire(path("x.lock"), Mode::Shared, kShort));
  // Moving the lock keeps it held; destroying the last owner releases it.
  FileLock moved = std::move(*writer);
  writer.reset();
  EXPECT_FALSE(FileLock::acquire(path("x.lock"), Mode::Shared, kShort));
  { FileLock gone = std::move(moved); }
  EXPECT_TRUE(FileLock::acquire(path("x.lock"), Mode::Exclusive, kShort));
}

TEST_F(FileLockTest, MissingFolderAndLinkedLockFileAreRefused) {
  errno = 0;
  EXPECT_FALSE(FileLock::acquire(path("missing/x.lock"), Mode::Exclusive, kShort));
  EXPECT_EQ(errno, ENOENT);
  // A link put where the lock file belongs must not make a writer create
  // or lock a file elsewhere.
  ASSERT_EQ(::symlink(path("elsewhere").c_str(), path("linked.lock").c_str()), 0);
  EXPECT_FALSE(FileLock::acquire(path("linked.lock"), Mode::Exclusive, kShort));
  EXPECT_FALSE(std::filesystem::exists(path("elsewhere")));
}

}  // namespace
}  // namespace platform
