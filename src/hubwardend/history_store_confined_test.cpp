// The history database under a sandbox root is opened, created and set
// aside inside the root, never through a link to somewhere else.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <set>

#include "hubwardend/history_store.h"
#include "platform/file_util.h"
#include "platform/linux/basics_test_support.h"

namespace hubwardend {
namespace {

namespace fs = std::filesystem;

TEST(HistoryStoreConfined, LinkedFolderOrFileLeadingOutsideIsRefused) {
  platform::testing::ScratchDir outside_root;  // a folder outside the sandbox root
  const std::string& outside = outside_root.dir();
  const std::string garbage(8192, 'x');
  ASSERT_TRUE(platform::write_file_atomically(outside + "/history.sqlite3", garbage));
  HistoryStoreOptions options;
  options.clock = [] { return 1.7e9; };
  {
    platform::testing::ScratchRoot sandbox;
    const std::string db = sandbox.path("/var/lib/hubwarden/history.sqlite3");

    // A folder linked out of the root: resolved inside it, where it is missing.
    fs::create_directories(sandbox.path("/var/lib"));
    fs::create_symlink(outside, sandbox.path("/var/lib/hubwarden"));
    std::string error;
    EXPECT_FALSE(open_history_store(db, options, &error));
    EXPECT_FALSE(error.empty());

    // The database file itself a link out of the root.
    fs::remove(sandbox.path("/var/lib/hubwarden"));
    fs::create_directories(sandbox.path("/var/lib/hubwarden"));
    fs::create_symlink(outside + "/history.sqlite3", db);
    error.clear();
    EXPECT_FALSE(open_history_store(db, options, &error));
    EXPECT_FALSE(error.empty());
    EXPECT_EQ(platform::testing::entry_names(outside), std::set<std::string>{"history.sqlite3"});
    EXPECT_EQ(platform::read_file(outside + "/history.sqlite3"), garbage);

    // A damaged file of the sandbox's own is set aside beside it.
    fs::remove(db);
    ASSERT_TRUE(platform::write_file_atomically(db, garbage));
    error.clear();
    auto store = open_history_store(db, options, &error);
    ASSERT_TRUE(store) << error;
    std::optional<plist::Array> samples;
    EXPECT_EQ(store->get(nullptr, plist::Value(60), &samples, nullptr), nullptr);
    store.reset();
    EXPECT_EQ(platform::read_file(db + ".corrupt-20231114T221320Z"), garbage);
  }
  EXPECT_EQ(platform::testing::entry_names(outside), std::set<std::string>{"history.sqlite3"});
}

}  // namespace
}  // namespace hubwardend
