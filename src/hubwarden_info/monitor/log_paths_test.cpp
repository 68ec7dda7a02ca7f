#include "monitor/log_paths.h"

#include <gtest/gtest.h>

#include <cstring>

#include "platform/file_util.h"
#include "request/spine_test_support.h"

namespace hubwarden {
namespace {

TEST(DoReadFileTest, SizesAroundTheGrowthStep) {
  testing::SandboxRoot root;
  auto check = [&](size_t size) {
    std::string path = root.path("/f" + std::to_string(size));
    ASSERT_TRUE(platform::write_file_atomically(path, std::string(size, 'x')));
    size_t length = 12345;
    std::unique_ptr<char[]> buffer = do_read_file(path.c_str(), &length);
    if (size == 0) {
      EXPECT_FALSE(buffer);
      EXPECT_EQ(length, 0u);
      return;
    }
    ASSERT_TRUE(buffer) << size;
    EXPECT_EQ(length, size);
    EXPECT_EQ(buffer[size], '\0');  // always a zero byte after the contents
    EXPECT_EQ(std::string(buffer.get(), length), std::string(size, 'x'));
  };
  for (size_t size : {0, 1, 99, 100, 101, 200, 1234}) check(size);

  size_t length = 7;
  EXPECT_FALSE(do_read_file(root.path("/missing").c_str(), &length));
  EXPECT_EQ(length, 0u);
}

}  // namespace
}  // namespace hubwarden
