#include "sentryd/evaluator.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "sentryd/rule_loader.h"

namespace sentryd {
namespace {

using namespace std::chrono_literals;

// The shipped disk rules, switched on the way the administration daemon
// does it.
std::vector<Rule> shipped_disk_rules(const std::string& contacts) {
  std::ifstream in(std::string(SENTRYD_SHIPPED_RULES) + "/DiskStatus.plist");
  std::stringstream text;
  text << in.rdbuf();
  std::string xml = text.str();
  for (size_t at; (at = xml.find("<string>0</string>")) != std::string::npos;)
    xml.replace(at, 18, "<string>1</string>");
  size_t at = xml.find("<string>literal:</string>");
  xml.replace(at, 25, "<string>literal:" + contacts + "</string>");
  return compile_rule_file("DiskStatus.plist", xml, [](const std::string&) {});
}

plist::Dict disk(const char* volume, const char* percent) {
  return plist::Dict{{"event_type", "com.marlo.hubwarden_info.diskstate"},
                     {"volumeName", volume},
                     {"freePercent", percent},
                     {"freeBytes", "1.2 GB"}};
}

TEST(Evaluator, ComparesAsNumbersOnlyWhenBothSidesAreNumbers) {
  EXPECT_TRUE(compare_values("9.5", Comparison::Less, "10.00"));  // as text "9.5" > "10.00"
  EXPECT_TRUE(compare_values(" 10 ", Comparison::Equal, "10.00"));
  EXPECT_FALSE(compare_values("abc", Comparison::Less, "10"));  // text: 'a' > '1'
  EXPECT_TRUE(compare_values("10x", Comparison::Greater, "10"));
  EXPECT_FALSE(compare_values("nan", Comparison::NotEqual, "nan"));  // not a number: equal texts
  EXPECT_FALSE(compare_values("", Comparison::Less, "10.00") && compare_values("", Comparison::Equal, "0"));
}

// Below the threshold mails once per volume per period; at the threshold,
// without the value, or with no usable contact nothing is sent (and an
// empty contact list does not use up the period).
TEST(Evaluator, ShippedDiskRuleMailsOncePerVolumeAndPeriod) {
  Evaluator evaluator(shipped_disk_rules("ops@x.test, ,second@x.test"));
  ASSERT_EQ(evaluator.rule_count(), 1u);
  Throttle throttle;
  auto t0 = Throttle::Clock::time_point{} + 1000h;
  std::vector<MailRequest> out;

  evaluator.evaluate(disk("Data", "9.99"), throttle, t0, &out);
  ASSERT_EQ(out.size(), 1u);
  EXPECT_EQ(out[0].to, (std::vector<std::string>{"ops@x.test", "second@x.test"}));
  EXPECT_EQ(out[0].subject, "Disk space low on volume Data");
  EXPECT_NE(out[0].body.find("1.2 GB (9.99% of the volume)"), std::string::npos);
  EXPECT_NE(out[0].body.find("threshold: 10.00%"), std::string::npos);

  evaluator.evaluate(disk("Data", "1.00"), throttle, t0 + 23h, &out);
  evaluator.evaluate(disk("Home", "10.00"), throttle, t0, &out);
  plist::Dict partial = disk("Home", "1");
  partial.remove("freePercent");
  evaluator.evaluate(partial, throttle, t0, &out);
  evaluator.evaluate(plist::Dict{{"freePercent", "1"}}, throttle, t0, &out);
  EXPECT_EQ(out.size(), 1u);

  evaluator.evaluate(disk("Home", "3"), throttle, t0 + 1h, &out);
  evaluator.evaluate(disk("Data", "3"), throttle, t0 + 24h, &out);
  EXPECT_EQ(out.size(), 3u);

  Evaluator nobody(shipped_disk_rules(""));
  Throttle fresh;
  out.clear();
  nobody.evaluate(disk("Data", "1"), fresh, t0, &out);
  EXPECT_TRUE(out.empty());
  EXPECT_EQ(fresh.size(), 0u);
}

TEST(Throttle, BoundedTableRefusesNewKeysUntilOldOnesExpire) {
  Throttle throttle(2);
  auto t0 = Throttle::Clock::time_point{} + 1000h;
  EXPECT_TRUE(throttle.admit("r", "a", 60s, t0));
  EXPECT_TRUE(throttle.admit("r", "b", 60s, t0 + 30s));
  EXPECT_FALSE(throttle.admit("r", "c", 60s, t0 + 30s));
  EXPECT_TRUE(throttle.admit("r", "c", 60s, t0 + 61s));  // "a" expired and made room
  EXPECT_FALSE(throttle.admit("r", "b", 60s, t0 + 61s));
  // Rule and key are kept apart even when their texts run together.
  Throttle other;
  EXPECT_TRUE(other.admit("ab", "c", 60s, t0));
  EXPECT_TRUE(other.admit("a", "bc", 60s, t0));
}

}  // namespace
}  // namespace sentryd
