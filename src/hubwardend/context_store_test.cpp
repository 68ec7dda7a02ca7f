#include "hubwardend/context_store.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "platform/file_util.h"
#include "platform/linux/basics_test_support.h"

namespace hubwardend {
namespace {

class ContextStoreTest : public ::testing::Test {
 protected:
  platform::testing::ScratchDir dir_;
  const std::string file_ = dir_.path("/state/context.plist");
};

TEST_F(ContextStoreTest, AbsentFileIsAnEmptyContextAndStoringCreatesIt) {
  LoadedContext loaded = load_context(file_);
  EXPECT_EQ(loaded.status, LoadedContext::Status::kAbsent);
  EXPECT_TRUE(loaded.context.empty());

  plist::Dict context{{"zeta", 1},
                      {"info", plist::Dict{{"state", "UNKNOWN"}, {"big", uint64_t{18446744073709551615u}}}},
                      {"alpha", plist::Array{-5, "x"}},
                      {"contextDirty", true}};
  ASSERT_TRUE(store_context(file_, context));
  struct stat st;
  ASSERT_EQ(stat(file_.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u) << "the context may hold what only the daemon should read";

  LoadedContext again = load_context(file_);
  EXPECT_EQ(again.status, LoadedContext::Status::kLoaded);
  EXPECT_EQ(again.context, context);
  // Equality ignores order; the round trip must not.
  std::vector<std::string> keys;
  for (const auto& [key, value] : again.context) keys.push_back(key);
  EXPECT_EQ(keys, (std::vector<std::string>{"zeta", "info", "alpha", "contextDirty"}));
}

TEST_F(ContextStoreTest, CorruptFilesAreMovedAsideAndKeptAndNonFilesLeftAlone) {
  // Malformed, well-formed but not a dictionary, empty: each is set aside,
  // and an earlier set-aside copy is never replaced.
  const std::string documents[] = {"<plist><dict><key>a</key>",
                                   "<?xml version=\"1.0\"?><plist version=\"1.0\"><array/></plist>", ""};
  const std::string moved_to[] = {file_ + ".corrupt", file_ + ".corrupt.2", file_ + ".corrupt.3"};
  for (size_t i = 0; i < 3; ++i) {
    ASSERT_TRUE(platform::write_file_atomically(file_, documents[i]));
    LoadedContext loaded = load_context(file_);
    EXPECT_EQ(loaded.status, LoadedContext::Status::kCorrupt) << i;
    EXPECT_TRUE(loaded.context.empty());
    EXPECT_FALSE(loaded.message.empty());
    EXPECT_EQ(loaded.moved_to, moved_to[i]);
    EXPECT_FALSE(platform::file_exists(file_));
  }
  for (size_t i = 0; i < 3; ++i) EXPECT_EQ(platform::read_file(moved_to[i]), documents[i]);

  // Something that is not a file is neither read, moved nor replaced.
  ASSERT_TRUE(platform::make_directories(file_));
  EXPECT_EQ(load_context(file_).status, LoadedContext::Status::kUnreadable);
  EXPECT_FALSE(store_context(file_, plist::Dict{{"a", 1}}));
  EXPECT_TRUE(std::filesystem::is_directory(file_));
}

}  // namespace
}  // namespace hubwardend
