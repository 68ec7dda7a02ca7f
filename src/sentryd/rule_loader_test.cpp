#include "sentryd/rule_loader.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

namespace sentryd {
namespace {

namespace fs = std::filesystem;

const char* kDiskRules = R"(<?xml version="1.0"?><plist version="1.0"><array>
  <dict><key>rule_name</key><string>Initialize</string><key>Active</key><string>0</string>
    <key>Actions</key><array>
      <dict><key>lvalue</key><string>global:Threshold</string><key>rvalue</key><string>literal:10.00</string></dict>
      <dict><key>lvalue</key><string>global:Contacts</string><key>rvalue</key><string>literal:a@x.test,bad address</string></dict>
      <string>junk action</string>
    </array></dict>
  <string>junk entry</string>
  <dict><key>rule_name</key><string>Low</string><key>Active</key><string>1</string>
    <key>event_type</key><string>disk</string>
    <key>Criteria</key><array><dict><key>lvalue</key><string>event:free</string><key>op</key><string>&lt;</string>
      <key>rvalue</key><string>global:Threshold</string></dict></array>
    <key>ThrottleKey</key><string>event:volume</string><key>ThrottleSeconds</key><string>60</string>
    <key>Actions</key><array><dict><key>action</key><string>mail</string><key>to</key><string>global:Contacts</string>
      <key>subject</key><string>Low ${event:volume} under ${global:Threshold}</string></dict></array></dict>
  <dict><key>rule_name</key><string>Off</string><key>Active</key><true/>
    <key>event_type</key><string>disk</string>
    <key>Actions</key><array><dict><key>action</key><string>mail</string><key>to</key><string>literal:a@x.test</string>
      <key>subject</key><string>s</string></dict></array></dict>
  <dict><key>rule_name</key><string>Typo</string><key>Active</key><string>1</string>
    <key>event_type</key><string>disk</string>
    <key>Actions</key><array><dict><key>action</key><string>mail</string><key>to</key><string>global:Contact</string>
      <key>subject</key><string>s</string></dict></array></dict>
</array></plist>)";

std::vector<std::string> g_log;
void record(const std::string& line) { g_log.push_back(line); }

bool logged(const std::string& part) {
  for (const std::string& line : g_log)
    if (line.find(part) != std::string::npos) return true;
  return false;
}

// Globals come from the Initialize rule whatever its "Active"; only rules
// whose "Active" is the string "1" are kept; junk entries, undefined
// variables and unusable addresses are reported and skipped alone.
TEST(RuleLoader, CompilesGoodRulesAndSkipsBadOnesAlone) {
  g_log.clear();
  std::vector<Rule> rules = compile_rule_file("Disk.plist", kDiskRules, record);
  ASSERT_EQ(rules.size(), 1u);
  const Rule& low = rules[0];
  EXPECT_EQ(low.name, "Low");
  ASSERT_EQ(low.criteria.size(), 1u);
  EXPECT_EQ(low.criteria[0].right.kind, Operand::Kind::Literal);
  EXPECT_EQ(low.criteria[0].right.text, "10.00");
  EXPECT_EQ(low.actions[0].to.text, "a@x.test,bad address");
  ASSERT_EQ(low.actions[0].subject.parts.size(), 3u);  // "Low ", volume, " under 10.00"
  EXPECT_EQ(low.actions[0].subject.parts[2].text, " under 10.00");
  EXPECT_EQ(low.throttle_seconds, 60);
  EXPECT_TRUE(logged("skipped assignment 2"));
  EXPECT_TRUE(logged("skipped entry 1: not a dictionary"));
  EXPECT_TRUE(logged("unusable address \"bad address\""));
  EXPECT_TRUE(logged("skipped rule \"Typo\": undefined variable global:Contact"));
  EXPECT_FALSE(logged("Off"));  // a boolean "Active" is simply off

  g_log.clear();
  EXPECT_TRUE(compile_rule_file("a", "<plist version=\"1.0\"><dict/></plist>", record).empty());
  EXPECT_TRUE(compile_rule_file("b", "<plist><array><string>x", record).empty());
  EXPECT_TRUE(compile_rule_file("c", "", record).empty());
  EXPECT_EQ(g_log.size(), 3u);
}

class RulesFolder : public ::testing::Test {
 protected:
  void SetUp() override {
    base_ = fs::temp_directory_path() / ("sentryd_rules_" + std::to_string(::getpid()));
    fs::remove_all(base_);
    fs::create_directories(base_ / "rules");
    g_log.clear();
  }
  void TearDown() override { fs::remove_all(base_); }
  void write(const fs::path& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }
  fs::path base_;
};

TEST_F(RulesFolder, ReadsOnlyUsableFilesInside) {
  fs::path rules = base_ / "rules";
  write(rules / "b.plist", kDiskRules);
  fs::create_symlink("b.plist", rules / "a.plist");  // inside: read (twice the rules)
  write(base_ / "outside.plist", kDiskRules);
  fs::create_symlink(base_ / "outside.plist", rules / "c.plist");
  fs::create_symlink("../outside.plist", rules / "d.plist");
  write(rules / "e.plist", std::string(kMaxRuleFileBytes + 1, ' '));
  fs::create_directory(rules / "f.plist");
  write(rules / "g.txt", kDiskRules);
  write(rules / ".h.plist", kDiskRules);
  fs::create_symlink("missing", rules / "i.plist");

  RuleSet set = load_rules(rules.string(), record);
  EXPECT_EQ(set.files_read, 2u);
  EXPECT_EQ(set.rules.size(), 2u);
  EXPECT_TRUE(logged("skipped c.plist: a symlink leading out"));
  EXPECT_TRUE(logged("skipped d.plist: a symlink leading out"));
  EXPECT_TRUE(logged("skipped e.plist: larger than 1 MB"));
  EXPECT_TRUE(logged("skipped f.plist: not a regular file"));
  EXPECT_TRUE(logged("skipped i.plist"));

  EXPECT_TRUE(load_rules((base_ / "none").string(), record).rules.empty());
}

}  // namespace
}  // namespace sentryd
