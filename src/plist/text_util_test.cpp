#include "plist/text_util.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace text {
namespace {

TEST(TextUtilTest, TrimAndSplitKeepOnlyWhatMatters) {
  EXPECT_EQ(trim(" \t a b \r\n"), "a b");
  EXPECT_EQ(trim(" \t\r\n"), "");
  EXPECT_EQ(trim("--x--", "-"), "x");
  EXPECT_EQ(first_word("  ntp.example.org iburst"), "ntp.example.org");
  EXPECT_EQ(first_word("\t"), "");
  EXPECT_EQ(split_words(" a\tbb  c "), (std::vector<std::string_view>{"a", "bb", "c"}));
  EXPECT_EQ(split_list(" ldap://a , ,ldap://b,", ','), (std::vector<std::string_view>{"ldap://a", "ldap://b"}));
  EXPECT_TRUE(split_list(" , ", ',').empty());
}

TEST(TextUtilTest, LinesEndAtNewlinesAndAVisitorMayStop) {
  std::vector<std::string> seen;
  for_each_line("a\n\nb", [&](std::string_view line) { seen.emplace_back(line); });
  EXPECT_EQ(seen, (std::vector<std::string>{"a", "", "b"}));
  seen.clear();
  for_each_line("x\ny\nz\n", [&](std::string_view line) {
    seen.emplace_back(line);
    return line == "y";
  });
  EXPECT_EQ(seen, (std::vector<std::string>{"x", "y"}));
  seen.clear();
  for_each_line("", [&](std::string_view line) { seen.emplace_back(line); });
  EXPECT_TRUE(seen.empty());
}

TEST(TextUtilTest, DecimalsAreDigitsOnlyAndNeverWrap) {
  EXPECT_EQ(parse_unsigned("18446744073709551615"), 18446744073709551615u);
  EXPECT_EQ(parse_u32("4294967295"), 4294967295u);
  EXPECT_EQ(parse_u32("007"), 7u);
  for (const char* bad : {"", " 1", "1 ", "+1", "-1", "1x", "0x10", "18446744073709551616"})
    EXPECT_FALSE(parse_unsigned(bad)) << bad;
  EXPECT_FALSE(parse_u32("4294967296"));
}

}  // namespace
}  // namespace text
