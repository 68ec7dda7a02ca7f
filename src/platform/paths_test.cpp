// The prefix table and root prefixing: which prefix a path falls under,
// and which entries the table refuses.
#include "platform/paths.h"

#include <gtest/gtest.h>

namespace platform {
namespace {

TEST(PathMap, LongestWholeComponentPrefixWinsAndMapsOnce) {
  PathMap map;
  std::string why;
  // Added shortest first: the table must not depend on the order of entries.
  ASSERT_TRUE(map.set("/var/db", "/var/lib/hw/db", &why)) << why;
  ASSERT_TRUE(map.set("/var/db/hubwarden", "/var/lib/hw", &why)) << why;
  ASSERT_TRUE(map.set("/Library/Preferences/", "/var/lib/hw/prefs//", &why)) << why;
  ASSERT_TRUE(map.set("/a", "/b", &why)) << why;
  ASSERT_TRUE(map.set("/b", "/c", &why)) << why;

  EXPECT_EQ(map.map("/var/db/.SetupDone"), "/var/lib/hw/db/.SetupDone");
  EXPECT_EQ(map.map("/var/db/hubwarden/history.sqlite3"), "/var/lib/hw/history.sqlite3");
  EXPECT_EQ(map.map("/var/db/hubwarden"), "/var/lib/hw");
  EXPECT_EQ(map.map("/var/db/hubwardenx/y"), "/var/lib/hw/db/hubwardenx/y");
  EXPECT_EQ(map.map("/var/db"), "/var/lib/hw/db");
  EXPECT_EQ(map.map("/var/db/"), "/var/lib/hw/db/");
  // Whole components only.
  EXPECT_EQ(map.map("/var/dbx/y"), "/var/dbx/y");
  EXPECT_EQ(map.map("/var/d"), "/var/d");
  EXPECT_EQ(map.map("/Library/Preferences/x.plist"), "/var/lib/hw/prefs/x.plist");
  EXPECT_EQ(map.map("/Library/PreferencesX"), "/Library/PreferencesX");
  // A mapped path is not mapped again through a second entry.
  EXPECT_EQ(map.map("/a/f"), "/b/f");
  EXPECT_EQ(map.map("/etc/hosts"), "/etc/hosts");

  // Replacing and removing an entry by any spelling of its prefix.
  ASSERT_TRUE(map.set("//var//db", "/srv/db", &why)) << why;
  EXPECT_EQ(map.map("/var/db/x"), "/srv/db/x");
  EXPECT_EQ(map.map("/var/db/hubwarden/x"), "/var/lib/hw/x");
  map.erase("/var/db/hubwarden/");
  EXPECT_EQ(map.map("/var/db/hubwarden/x"), "/srv/db/hubwarden/x");
  EXPECT_EQ(map.entries().size(), 4u);

  // A target of "/" strips the prefix without doubling the slash.
  ASSERT_TRUE(map.set("/opt/x", "/", &why)) << why;
  EXPECT_EQ(map.map("/opt/x/y"), "/y");
  EXPECT_EQ(map.map("/opt/x"), "/");
}

TEST(PathMap, RefusesEntriesThatMapIntoThemselvesOrStepOut) {
  PathMap map;
  std::string why;
  ASSERT_TRUE(map.set("/var/db", "/var/lib/hw/db", &why));
  struct Case {
    const char* prefix;
    const char* target;
    const char* reason;
  };
  for (const Case& c : {
           Case{"/var/db", "/var/db", "maps into itself"},
           Case{"/var/db", "/var/db/inner", "maps into itself"},
           Case{"/var/db/", "//var/db//inner/", "maps into itself"},
           Case{"/x", "/", ""},  // accepted; checked below
           Case{"/", "/var/lib", "root folder"},
           Case{"//", "/var/lib", "root folder"},
           Case{"/var/db", "/var/lib/../../etc", "\"..\" component"},
           Case{"/var/db", "/var/./lib", "\".\" component"},
           Case{"/var/../etc", "/srv", "\"..\" component"},
           Case{"var/db", "/srv", "not an absolute path"},
           Case{"/var/db", "srv", "not an absolute path"},
           Case{"", "/srv", "not an absolute path"},
       }) {
    why.clear();
    bool accepted = map.set(c.prefix, c.target, &why);
    if (std::string(c.reason).empty()) {
      EXPECT_TRUE(accepted) << c.prefix << " -> " << c.target << ": " << why;
      map.erase(c.prefix);
      continue;
    }
    EXPECT_FALSE(accepted) << c.prefix << " -> " << c.target;
    EXPECT_NE(why.find(c.reason), std::string::npos) << why;
  }
  // Refused entries leave the table as it was.
  ASSERT_EQ(map.entries().size(), 1u);
  EXPECT_EQ(map.map("/var/db/x"), "/var/lib/hw/db/x");
}

TEST(Paths, MapsBeforePrefixingTheRoot) {
  PathMap map;
  std::string why;
  ASSERT_TRUE(map.set("/Library/Preferences", "/var/lib/hw/preferences", &why));

  Paths sandbox("/tmp/box/", map);
  EXPECT_FALSE(sandbox.is_real_root());
  EXPECT_EQ(sandbox.resolve("/Library/Preferences/s.plist"), "/tmp/box/var/lib/hw/preferences/s.plist");
  EXPECT_EQ(sandbox.resolve("/etc/hostname"), "/tmp/box/etc/hostname");

  Paths real("/", map);
  EXPECT_TRUE(real.is_real_root());
  EXPECT_EQ(real.resolve("/Library/Preferences/s.plist"), "/var/lib/hw/preferences/s.plist");

  Paths plain("/tmp/box");
  EXPECT_TRUE(plain.prefixes().empty());
  EXPECT_EQ(plain.resolve("/Library/Preferences/s.plist"), "/tmp/box/Library/Preferences/s.plist");
}

}  // namespace
}  // namespace platform
