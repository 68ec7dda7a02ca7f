// The system-wide preferences file: merged writes, other programs' keys
// kept, and a damaged file set aside rather than overwritten.
#include "platform/linux/global_preferences.h"

#include <gtest/gtest.h>

#include "platform/file_util.h"
#include "platform/linux/basics_test_support.h"
#include "plist/codec.h"

namespace platform {
namespace {

using testing::ScratchRoot;

plist::Dict stored(const ScratchRoot& root) {
  std::optional<std::string> text = read_file(root.path(kGlobalPreferencesPath));
  if (!text) return {};
  plist::Parsed parsed = plist::parse_xml(*text);
  return parsed.ok() && parsed.value.as_dict() ? *parsed.value.as_dict() : plist::Dict();
}

TEST(GlobalPreferencesTest, ChangesReachTheFileAtFlushMergedWithOthers) {
  ScratchRoot root;
  testing::CapturedLog log;
  std::unique_ptr<Preferences> preferences = make_global_preferences();
  EXPECT_FALSE(preferences->get("a"));
  EXPECT_TRUE(preferences->flush());  // nothing to write
  EXPECT_FALSE(root.exists(kGlobalPreferencesPath));

  preferences->set("a", plist::Value(plist::Dict{{"TimeZoneName", "Europe/Paris"}}));
  EXPECT_EQ(*preferences->get("a")->as_dict()->find_string("TimeZoneName"), "Europe/Paris");
  EXPECT_FALSE(root.exists(kGlobalPreferencesPath));
  ASSERT_TRUE(preferences->flush());

  // Another program adds a key; ours is written beside it, and removing a
  // key removes only that one.
  plist::Dict theirs = stored(root);
  theirs.set("theirs", plist::Value(7));
  root.write(kGlobalPreferencesPath, plist::write_xml(plist::Value(theirs)));
  EXPECT_EQ(*preferences->get("theirs"), plist::Value(7));
  preferences->set("b", plist::Value(plist::Array{plist::Value(1)}));
  preferences->set("a", std::nullopt);
  ASSERT_TRUE(preferences->flush());
  plist::Dict now = stored(root);
  EXPECT_FALSE(now.contains("a"));
  EXPECT_EQ(*now.find("theirs"), plist::Value(7));
  EXPECT_EQ(*now.find("b"), plist::Value(plist::Array{plist::Value(1)}));
  EXPECT_TRUE(log.entries().empty());
}

TEST(GlobalPreferencesTest, DamagedFileIsSetAsideAndFailedWritesKeepTheChanges) {
  ScratchRoot root;
  testing::CapturedLog log;
  std::unique_ptr<Preferences> preferences = make_global_preferences();
  root.write(kGlobalPreferencesPath, "<plist><dict><key>x</key>");
  EXPECT_FALSE(preferences->get("x"));
  preferences->set("a", plist::Value("v"));
  ASSERT_TRUE(preferences->flush());
  EXPECT_EQ(*read_file(root.path(std::string(kGlobalPreferencesPath) + ".damaged")), "<plist><dict><key>x</key>");
  EXPECT_EQ(*stored(root).find("a"), plist::Value("v"));
  EXPECT_TRUE(log.contains(Priority::Error, ".damaged"));

  // The folder turns into a file: the write fails, the change waits.
  std::string folder = std::string(kGlobalPreferencesPath).substr(0, std::string(kGlobalPreferencesPath).rfind('/'));
  std::filesystem::remove_all(root.path(folder));
  root.write(folder, "not a folder");
  preferences->set("b", plist::Value("w"));
  EXPECT_FALSE(preferences->flush());
  EXPECT_EQ(*preferences->get("b"), plist::Value("w"));
  std::filesystem::remove(root.path(folder));
  ASSERT_TRUE(preferences->flush());
  EXPECT_EQ(*stored(root).find("b"), plist::Value("w"));
}

}  // namespace
}  // namespace platform
