// Tests of what an administrator types becoming request values.
#include "hubwarden_client/arguments.h"

#include <gtest/gtest.h>

#include <limits>

namespace hubwarden_client {
namespace {

TEST(ArgumentsTest, WordsBecomeTypedValues) {
  EXPECT_EQ(*parse_word_value("true").as_bool(), true);
  EXPECT_EQ(*parse_word_value("false").as_bool(), false);
  EXPECT_EQ(*parse_word_value("42").as_integer(), 42);
  EXPECT_EQ(*parse_word_value("-42").as_integer(), -42);
  EXPECT_EQ(*parse_word_value("+7").as_integer(), 7);
  EXPECT_EQ(*parse_word_value("-9223372036854775808").as_integer(), std::numeric_limits<int64_t>::min());
  EXPECT_EQ(*parse_word_value("18446744073709551615").as_unsigned(), std::numeric_limits<uint64_t>::max());
  // Not integers, or too big for one: kept as the text typed.
  for (const char* word :
       {"18446744073709551616", "-9223372036854775809", "1.5", "0x10", "", "-", "TRUE", "1 2", "server.example.com"})
    EXPECT_EQ(*parse_word_value(word).as_string(), word) << word;
}

TEST(ArgumentsTest, KeyValuesAndJsonValues) {
  plist::Dict d;
  EXPECT_EQ(add_key_values({"computerName=build box", "enableSSH=true", "limit=5", "empty=", "a=b=c", "pids:=[1, 2]",
                            "cfg:={\"x\": 1.5}", "zip:=\"007\"", "limit=6"},
                           &d),
            "");
  EXPECT_EQ(*d.find_string("computerName"), "build box");
  EXPECT_EQ(*d.find("enableSSH")->as_bool(), true);
  EXPECT_EQ(*d.find("limit")->as_integer(), 6);  // the later one wins, in place
  EXPECT_EQ(d.at_index(2).first, "limit");
  EXPECT_EQ(*d.find_string("empty"), "");
  EXPECT_EQ(*d.find_string("a"), "b=c");
  EXPECT_EQ(d.find_array("pids")->size(), 2u);
  EXPECT_EQ(*d.find_dict("cfg")->find("x")->as_real(), 1.5);
  EXPECT_EQ(*d.find_string("zip"), "007");

  for (const char* bad : {"novalue", "=5", ":=5", "x:=[1,", "x:={\"$when\": 1}"}) {
    plist::Dict out;
    std::string error = add_key_values({bad}, &out);
    EXPECT_NE(error, "") << bad;
    EXPECT_NE(error.find(bad), std::string::npos) << error;
  }
}

TEST(ArgumentsTest, RequestFilesInEitherForm) {
  plist::Dict request;
  EXPECT_EQ(parse_request_text("  <?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>command</key>"
                               "<string>getHistory</string><key>timeScale</key><integer>60</integer></dict></plist>",
                               &request),
            "");
  EXPECT_EQ(*request.find_string("command"), "getHistory");
  EXPECT_EQ(*request.find("timeScale")->as_integer(), 60);

  EXPECT_EQ(parse_request_text("{\"command\": \"killProcesses\", \"pids\": [99]}\n", &request), "");
  EXPECT_EQ(*request.find_string("command"), "killProcesses");

  EXPECT_NE(parse_request_text("[1]", &request), "");
  EXPECT_NE(parse_request_text("{\"command\": 5}", &request), "");
  EXPECT_NE(parse_request_text("<plist><dict></dict>", &request), "");
  EXPECT_NE(parse_request_text("", &request), "");
}

TEST(ArgumentsTest, TimeSpans) {
  EXPECT_EQ(parse_time_span("90"), 90);
  EXPECT_EQ(parse_time_span("15m"), 900);
  EXPECT_EQ(parse_time_span("1h"), 3600);
  EXPECT_EQ(parse_time_span("1w"), 604800);
  EXPECT_EQ(parse_time_span("520w"), 520 * 604800);
  for (const char* bad : {"", "h", "0", "0h", "-1h", "1.5h", "1y", "1 h", "99999999999999999999", "600w"})
    EXPECT_EQ(parse_time_span(bad), std::nullopt) << bad;
}

}  // namespace
}  // namespace hubwarden_client
