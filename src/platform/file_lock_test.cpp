#include "platform/file_lock.h"

#include <errno.h>
#include <gtest/gtest.h>

#include <thread>

#include "platform/linux/basics_test_support.h"

namespace platform {
namespace {

using Mode = FileLock::Mode;
constexpr std::chrono::milliseconds kShort{30};

TEST(FileLockTest, ReadersShareWritersWaitThenGiveUp) {
  testing::ScratchDir scratch;
  const std::string lock = scratch.path("/x.lock");
  std::optional<FileLock> reader = FileLock::acquire(lock, Mode::Shared, kShort);
  ASSERT_TRUE(reader);
  EXPECT_TRUE(FileLock::acquire(lock, Mode::Shared, kShort));
  errno = 0;
  EXPECT_FALSE(FileLock::acquire(lock, Mode::Exclusive, kShort));
  EXPECT_EQ(errno, ETIMEDOUT);

  // A holder that lets go within the wait is waited for.
  std::thread release([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    reader.reset();
  });
  std::optional<FileLock> writer = FileLock::acquire(lock, Mode::Exclusive, std::chrono::seconds(10));
  release.join();
  ASSERT_TRUE(writer);
  EXPECT_FALSE(FileLock::acquire(lock, Mode::Shared, kShort));
  // Moving the lock keeps it held; destroying the last owner releases it.
  FileLock moved = std::move(*writer);
  writer.reset();
  EXPECT_FALSE(FileLock::acquire(lock, Mode::Shared, kShort));
  { FileLock gone = std::move(moved); }
  EXPECT_TRUE(FileLock::acquire(lock, Mode::Exclusive, kShort));
}

TEST(FileLockTest, MissingFolderAndLinkedLockFileAreRefused) {
  testing::ScratchDir scratch;
  errno = 0;
  EXPECT_FALSE(FileLock::acquire(scratch.path("/missing/x.lock"), Mode::Exclusive, kShort));
  EXPECT_EQ(errno, ENOENT);
  // A link put where the lock file belongs must not make a writer create
  // or lock a file elsewhere.
  scratch.link("/linked.lock", scratch.path("/elsewhere"));
  EXPECT_FALSE(FileLock::acquire(scratch.path("/linked.lock"), Mode::Exclusive, kShort));
  EXPECT_FALSE(scratch.exists("/elsewhere"));
}

}  // namespace
}  // namespace platform
