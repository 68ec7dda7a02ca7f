#include "hubwardend/context_store.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>

#include "platform/file_util.h"

namespace hubwardend {
namespace {

class ContextStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string tmpl = (std::filesystem::temp_directory_path() / "hubwardend-context-XXXXXX").string();
    dir_ = ::mkdtemp(tmpl.data());
    file_ = dir_ + "/state/context.plist";
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  std::string dir_;
  std::string file_;
};

TEST_F(ContextStoreTest, AbsentFileIsAnEmptyContextAndStoringCreatesIt) {
  LoadedContext loaded = load_context(file_);
  EXPECT_EQ(loaded.status, LoadedContext::Status::kAbsent);
  EXPECT_TRUE(loaded.context.empty());

  plist::Dict context;
  context.set("zeta", 1);
  context.set("info", plist::Dict{{"state", "UNKNOWN"}, {"big", plist::Value(uint64_t{18446744073709551615u})}});
  context.set("alpha", plist::Array{plist::Value(-5), plist::Value("x")});
  context.set("contextDirty", true);
  ASSERT_TRUE(store_context(file_, context));

  struct stat st;
  ASSERT_EQ(stat(file_.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u) << "the context may hold what only the daemon should read";

  LoadedContext again = load_context(file_);
  EXPECT_EQ(again.status, LoadedContext::Status::kLoaded);
  EXPECT_EQ(again.context, context);
  ASSERT_EQ(again.context.size(), 4u);
  EXPECT_EQ(again.context.at_index(0).first, "zeta") << "key order survives the round trip";
  EXPECT_EQ(again.context.at_index(2).first, "alpha");
}

TEST_F(ContextStoreTest, CorruptFilesAreMovedAsideAndKept) {
  ASSERT_TRUE(platform::write_file_atomically(file_, "<plist><dict><key>a</key>"));
  LoadedContext first = load_context(file_);
  EXPECT_EQ(first.status, LoadedContext::Status::kCorrupt);
  EXPECT_TRUE(first.context.empty());
  EXPECT_FALSE(first.message.empty());
  EXPECT_EQ(first.moved_to, file_ + ".corrupt");
  EXPECT_FALSE(platform::file_exists(file_));
  EXPECT_EQ(platform::read_file(file_ + ".corrupt").value_or(""), "<plist><dict><key>a</key>");

  // A well-formed list that is not a dictionary is just as unusable, and an
  // earlier set-aside copy is not replaced.
  const std::string array = "<?xml version=\"1.0\"?><plist version=\"1.0\"><array/></plist>";
  ASSERT_TRUE(platform::write_file_atomically(file_, array));
  LoadedContext second = load_context(file_);
  EXPECT_EQ(second.status, LoadedContext::Status::kCorrupt);
  EXPECT_EQ(second.moved_to, file_ + ".corrupt.2");
  EXPECT_EQ(platform::read_file(file_ + ".corrupt").value_or(""), "<plist><dict><key>a</key>");
  EXPECT_EQ(platform::read_file(file_ + ".corrupt.2").value_or(""), array);

  // So is an empty file.
  ASSERT_TRUE(platform::write_file_atomically(file_, ""));
  EXPECT_EQ(load_context(file_).status, LoadedContext::Status::kCorrupt);
}

TEST_F(ContextStoreTest, SomethingThatIsNotAFileIsLeftAlone) {
  ASSERT_TRUE(platform::make_directories(file_));
  LoadedContext loaded = load_context(file_);
  EXPECT_EQ(loaded.status, LoadedContext::Status::kUnreadable);
  EXPECT_TRUE(std::filesystem::is_directory(file_));
  EXPECT_FALSE(store_context(file_, plist::Dict{{"a", 1}}));
  EXPECT_TRUE(std::filesystem::is_directory(file_));
}

}  // namespace
}  // namespace hubwardend
