#include "notify/notification_settings.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <string>

#include "notify/event_rules.h"
#include "platform/fake/fake_log.h"
#include "platform/fake/fake_process_finder.h"
#include "platform/fake/fake_process_signals.h"
#include "platform/file_util.h"
#include "plist/codec.h"
#include "request/spine_test_support.h"
#include "settings/settings_file.h"

namespace hubwarden {
namespace {

using plist::Array;
using plist::Dict;
using plist::Value;
using testing::Installed;

constexpr const char* kDisk = "/etc/sentryd.d/rules/DiskStatus.plist";
constexpr const char* kUpdates = "/etc/sentryd.d/rules/SWUpdate.plist";
constexpr const char* kCertificates = "/etc/sentryd.d/rules/SentrydCertificateExpiring.plist";

// A rule file as the event monitor ships it: an "Initialize" rule that
// assigns the file's variables and one more, and a rule with members of
// its own.
std::string rule_file(const std::string& variable) {
  Array actions{Dict{{"lvalue", variable}, {"rvalue", "literal:old"}},
                Dict{{"lvalue", "global:DiskFreeThreshold1"}, {"rvalue", "literal:5.00"}},
                Dict{{"lvalue", "global:Unrelated"}, {"rvalue", "literal:keep"}}, Value("not an action")};
  Array rules{Dict{{"rule_name", "Initialize"}, {"Active", "1"}, {"Actions", actions}},
              Dict{{"rule_name", "Notify"}, {"Active", "1"}, {"Criterion", "event_type == x"}, {"Period", 3600}},
              Value(7)};
  return plist::write_xml(rules);
}

class NotificationSettingsTest : public ::testing::Test {
 protected:
  NotificationSettingsTest() : log_(&fake_log_), finder_(&fake_finder_), signals_(&fake_signals_) {
    create_settings_lock();
  }
  ~NotificationSettingsTest() override { reset_settings_lock_for_testing(); }

  Array rules_in(const char* path) {
    plist::Parsed parsed = plist::parse_xml(platform::read_file(root_.path(path)).value_or(""));
    return parsed.ok() && parsed.value.as_array() ? *parsed.value.as_array() : Array();
  }
  // The rvalue the "Initialize" rule of path assigns to variable.
  std::string assigned(const char* path, const std::string& variable) {
    for (const Value& rule : rules_in(path))
      if (const Dict* d = rule.as_dict(); d && *d->find_string("rule_name") == "Initialize")
        for (const Value& action : *d->find_array("Actions"))
          if (const Dict* a = action.as_dict(); a && *a->find_string("lvalue") == variable)
            return *a->find_string("rvalue");
    return "<none>";
  }
  std::vector<std::string> active_flags(const char* path) {
    std::vector<std::string> flags;
    for (const Value& rule : rules_in(path))
      if (const Dict* d = rule.as_dict()) flags.push_back(*d->find_string("Active"));
    return flags;
  }
  Dict write(const Dict* request) {
    ReplySlot reply;
    EXPECT_EQ(write_notifications_settings(request, reply, nullptr), nullptr);
    return reply.value_or(Dict{{"no", "reply"}});
  }

  testing::SandboxRoot root_;
  platform::FakeLog fake_log_;
  platform::FakeProcessFinder fake_finder_;
  platform::FakeProcessSignals fake_signals_;

 private:
  Installed<platform::Log> log_;
  Installed<platform::ProcessFinder> finder_;
  Installed<platform::ProcessSignals> signals_;
};

// The settings are stored whole and written into the two rule files that
// exist (the missing one is not created), every other member kept, the
// file's permission bits kept; only the event monitor is signalled, and
// SIGKILL follows a SIGTERM that could not be sent.
TEST_F(NotificationSettingsTest, SettingsReachTheRuleFilesAndTheMonitorRestarts) {
  root_.write(kDisk, rule_file("global:DiskNotificationContacts"));
  root_.write(kUpdates, rule_file("global:SWUpdateNotificationContacts"));
  ::chmod(root_.path(kDisk).c_str(), 0640);
  fake_finder_.pids = {{"sentryd", 4242}, {"sentryd-helper", 77}};
  fake_signals_.results[{4242, SIGTERM}] = ESRCH;

  Dict settings{{"diskFull", Dict{{"active", true},
                                  {"freeSpaceThreshold", 0.5},
                                  {"who", Array{Dict{{"email", "ops@example.org"}}, Dict{{"name", "no address"}},
                                                Dict{{"email", "root@example.org"}}}}}},
                {"suAvailable", Dict{{"active", 1}, {"who", Array()}}},
                {"certificateExpiration", Dict{{"active", false}}},
                {"consoleOnly", "kept"}};
  Dict request{{"notifications_settings", settings}};
  Dict reply = write(&request);

  EXPECT_EQ(reply, (Dict{{"notifications_settings", settings}, {"writeStatus", 0}}));
  EXPECT_EQ(testing::keys_of(reply), (std::vector<std::string>{"notifications_settings", "writeStatus"}));
  EXPECT_EQ(*read_key_from_settings_file("NotificationsSettings"), Value(settings));

  EXPECT_EQ(assigned(kDisk, "global:DiskFreeThreshold1"), "literal:0.50");
  EXPECT_EQ(assigned(kDisk, "global:DiskNotificationContacts"), "literal:ops@example.org,root@example.org");
  EXPECT_EQ(assigned(kDisk, "global:Unrelated"), "literal:keep");
  EXPECT_EQ(active_flags(kDisk), (std::vector<std::string>{"1", "1"}));
  Array disk = rules_in(kDisk);
  ASSERT_EQ(disk.size(), 3u);
  EXPECT_EQ(*disk[1].as_dict()->find("Period"), Value(3600));
  EXPECT_EQ(disk[2], Value(7));
  EXPECT_EQ(disk[0].as_dict()->find_array("Actions")->back(), Value("not an action"));
  struct stat st;
  ASSERT_EQ(::stat(root_.path(kDisk).c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0640u);

  EXPECT_EQ(assigned(kUpdates, "global:SWUpdateNotificationContacts"), "literal:");
  // Only the disk file's own variables change; the same name in another
  // file is that file's business.
  EXPECT_EQ(assigned(kUpdates, "global:DiskFreeThreshold1"), "literal:5.00");
  EXPECT_FALSE(root_.exists(kCertificates));

  EXPECT_EQ(fake_finder_.asked, (std::vector<std::string>{"sentryd"}));
  EXPECT_EQ(fake_signals_.sent, (std::vector<std::pair<pid_t, int>>{{4242, SIGTERM}, {4242, SIGKILL}}));
}

// Without settings in the request the stored ones are written again; a
// member switched off (or of the wrong type) turns every rule off and
// still updates the assignments; with no monitor running nothing is
// signalled.
TEST_F(NotificationSettingsTest, StoredSettingsAreRewrittenAndOffMeansEveryRuleOff) {
  root_.write(kDisk, rule_file("global:DiskNotificationContacts"));
  root_.write(kCertificates, rule_file("global:CertificateExpirationNotificationContacts"));
  Dict stored{{"diskFull", Dict{{"active", false}, {"freeSpaceThreshold", 10}, {"who", "not a list"}}},
              {"certificateExpiration", Dict{{"active", "YES"}, {"who", Array{Dict{{"email", "a@b"}}}}}}};
  overwrite_key_in_settings_file(stored, "NotificationsSettings");
  fake_finder_.pids = {{"sentryd-helper", 77}, {"init", 1}};

  Dict request{{"notifications_settings", "not a dictionary"}};
  Dict reply = write(&request);
  EXPECT_EQ(*reply.find_dict("notifications_settings"), stored);
  EXPECT_EQ(write(nullptr), reply);

  EXPECT_EQ(assigned(kDisk, "global:DiskFreeThreshold1"), "literal:10.00");
  EXPECT_EQ(assigned(kDisk, "global:DiskNotificationContacts"), "literal:");
  EXPECT_EQ(active_flags(kDisk), (std::vector<std::string>{"0", "0"}));
  EXPECT_EQ(assigned(kCertificates, "global:CertificateExpirationNotificationContacts"), "literal:a@b");
  EXPECT_EQ(active_flags(kCertificates), (std::vector<std::string>{"0", "0"}));
  EXPECT_FALSE(root_.exists(kUpdates));
  EXPECT_TRUE(fake_signals_.sent.empty());

  // A monitor that reports itself as init is never signalled either.
  fake_finder_.pids = {{"sentryd", 1}};
  write(nullptr);
  EXPECT_TRUE(fake_signals_.sent.empty());
}

// A rule file that is not a rule list, is too large, is not a regular file,
// or is a link out of the rules folder is left exactly as it was; a link to
// another rule file in the folder is followed and stays a link.
TEST_F(NotificationSettingsTest, UnusableRuleFilesAreLeftAlone) {
  RuleFileUpdate update{true, {{"global:DiskNotificationContacts", "literal:x@y"}}};
  auto untouched = [&](const std::string& contents, RuleFileResult expected) {
    root_.write(kDisk, contents);
    EXPECT_EQ(update_rule_file(kDisk, update), expected) << contents.substr(0, 40);
    EXPECT_EQ(platform::read_file(root_.path(kDisk)), contents);
  };
  untouched("junk <plist", RuleFileResult::kUnparsable);
  untouched(plist::write_xml(Dict{{"rule_name", "Initialize"}}), RuleFileResult::kUnparsable);
  untouched("{ rule_name = Initialize; }", RuleFileResult::kUnparsable);
  untouched(std::string(kMaxRuleFileBytes + 1, ' '), RuleFileResult::kTooLarge);

  // An array of junk is a rule list with nothing to change in it but is
  // still the administrator's: written back with every entry as it was.
  Array junk{Value(1), Value("two"), Array{Value(3)}};
  root_.write(kDisk, plist::write_xml(junk));
  EXPECT_EQ(update_rule_file(kDisk, update), RuleFileResult::kWritten);
  EXPECT_EQ(rules_in(kDisk), junk);

  ::unlink(root_.path(kDisk).c_str());
  EXPECT_EQ(update_rule_file(kDisk, update), RuleFileResult::kMissing);
  EXPECT_FALSE(root_.exists(kDisk));
  root_.mkdir(kDisk);
  EXPECT_EQ(update_rule_file(kDisk, update), RuleFileResult::kRefused);
  ::rmdir(root_.path(kDisk).c_str());

  std::string outside = rule_file("global:DiskNotificationContacts");
  root_.write("/etc/other.plist", outside);
  for (const char* target : {"../../other.plist", "/etc/other.plist", "sub/../../../other.plist"}) {
    root_.link(kDisk, target);
    EXPECT_EQ(update_rule_file(kDisk, update), RuleFileResult::kRefused) << target;
  }
  EXPECT_EQ(platform::read_file(root_.path("/etc/other.plist")), outside);

  root_.write("/etc/sentryd.d/rules/Disk.real.plist", outside);
  root_.link(kDisk, "Disk.real.plist");
  EXPECT_EQ(update_rule_file(kDisk, update), RuleFileResult::kWritten);
  EXPECT_EQ(root_.link_target(kDisk), "Disk.real.plist");
  EXPECT_EQ(assigned(kDisk, "global:DiskNotificationContacts"), "literal:x@y");
}

}  // namespace
}  // namespace hubwarden
