// The service switches: when the service manager is asked at all, the
// status codes, the kickstart tool's rules and the screenlink groups.
#include <gtest/gtest.h>

#include "platform/fake/fake_tasks.h"
#include "switches/screenlink_groups.h"
#include "switches/switch_state.h"
#include "testing/settings_doubles.h"

namespace hubwarden {
namespace {

using platform::FakeServiceManager;
using platform::Priority;

constexpr const char* kSshJob = "/System/Library/LaunchDaemons/ssh.plist";
constexpr const char* kFileSyncJob = "/System/Library/LaunchDaemons/com.marlo.FileSyncAgent.sshd.plist";
constexpr const char* kKickstart =
    "/System/Library/CoreServices/RemoteManagement/ScreenlinkAgent.app/Contents/Resources/kickstart";
constexpr const char* kNested = "dsAttrTypeStandard:NestedGroups";

class SwitchesTest : public ::testing::Test {
 protected:
  std::vector<std::vector<std::string>> kickstart_runs() {
    std::vector<std::vector<std::string>> runs;
    for (const auto& call : tasks.invocations()) runs.push_back(call.args);
    return runs;
  }
  std::vector<std::string> nested(const std::string& group) {
    std::optional<Dict> record = world.directory.group(group);
    std::vector<std::string> out;
    if (const Array* a = record ? record->find_array(kNested) : nullptr)
      for (const Value& v : *a) out.push_back(*v.as_string());
    return out;
  }

  testing::SettingsWorld world;
  platform::FakeTasks tasks;
  testing::Installed<platform::Tasks> tasks_in{&tasks};
};

TEST_F(SwitchesTest, SshAndFileSyncAskTheServiceManagerAsIntended) {
  world.service_manager.set_job("com.openssh.sshd", true);
  EXPECT_EQ(set_ssh_state(true), 0);
  EXPECT_TRUE(world.service_manager.set_calls().empty());
  world.service_manager.fail_job(kSshJob, 5);
  EXPECT_EQ(set_ssh_state(false), kSshDisableFailed);
  world.service_manager.set_job("com.openssh.sshd", false);
  EXPECT_EQ(set_ssh_state(true), kSshEnableFailed);

  world.service_manager.set_job(kFileSyncJob, false);
  EXPECT_EQ(set_filesyncd_state(false), 0);
  EXPECT_EQ(world.service_manager.set_calls().back(), (FakeServiceManager::SetCall{kFileSyncJob, false}));
  world.service_manager.fail_job(kFileSyncJob, 1);
  EXPECT_EQ(set_filesyncd_state(true), kFileSyncEnableFailed);
  EXPECT_EQ(set_filesyncd_state(false), kFileSyncDisableFailed);
}

TEST_F(SwitchesTest, KickstartMustExitZeroAndStayQuiet) {
  tasks.set_exit(kKickstart, 0, "", "warning: display busy\n");
  EXPECT_EQ(set_screenlink_state(true), kScreenlinkEnableFailed);
  EXPECT_EQ(
      testing::lines_at(world.log, Priority::Notice),
      std::vector<std::string>{"hubwarden_info: got status 0 starting Screenlink. error: \"warning: display busy\n\""});
  EXPECT_EQ(tasks.last(kKickstart)->timeout_seconds, 60);

  tasks.set_handler(kKickstart, [](const platform::FakeTasks::Invocation& call) {
    platform::TaskResult r;
    r.launched = true;
    r.exit_status = call.args[1] == "-configure" ? 3 : 0;
    return r;
  });
  tasks.clear_invocations();
  EXPECT_EQ(set_screenlink_state(true), kScreenlinkEnableFailed);
  EXPECT_TRUE(world.log.contains(Priority::Notice, "got status 3 configuring Screenlink. error: \"\""));
  EXPECT_EQ(kickstart_runs(),
            (std::vector<std::vector<std::string>>{{"kickstart", "-activate"},
                                                   {"kickstart", "-configure", "-allowAccessFor", "-specifiedUsers"}}));

  // Off only acts when the marker is there.
  tasks.clear_invocations();
  EXPECT_EQ(set_screenlink_state(false), 0);
  EXPECT_TRUE(tasks.invocations().empty());
  world.root.write("/etc/RemoteManagement.launchd", "");
  EXPECT_TRUE(get_screenlink_state());
  EXPECT_EQ(set_screenlink_state(true), 0);
  tasks.set_exit(kKickstart, 1);
  EXPECT_EQ(set_screenlink_state(false), kScreenlinkDisableFailed);
  EXPECT_EQ(kickstart_runs(), (std::vector<std::vector<std::string>>{{"kickstart", "-deactivate"}}));
}

TEST_F(SwitchesTest, AdminsAreNestedInEveryScreenlinkGroup) {
  world.directory.add_group("admin");
  world.directory.put_group(kScreenlinkGroups[0], Dict{{kNested, Array{Value("OTHER")}}});
  grant_admins_screenlink_rights();
  std::string guid =
      *world.directory.group("admin")->find_array("dsAttrTypeStandard:GeneratedUID")->front().as_string();
  EXPECT_EQ(guid.size(), 36u);
  EXPECT_EQ(nested(kScreenlinkGroups[0]), (std::vector<std::string>{"OTHER", guid}));
  for (size_t i = 1; i < kScreenlinkGroups.size(); ++i) EXPECT_EQ(nested(kScreenlinkGroups[i]), std::vector{guid});
  EXPECT_EQ(world.directory.legacy_gid_calls(), 4);

  // A second pass changes nothing but still draws an id for every group.
  size_t writes = world.directory.writes().size();
  grant_admins_screenlink_rights();
  EXPECT_EQ(world.directory.writes().size(), writes);
  EXPECT_EQ(world.directory.legacy_gid_calls(), 8);
  EXPECT_TRUE(world.log.entries().empty());
}

TEST_F(SwitchesTest, GroupFailuresAreLoggedAndTheToolRunsAnyway) {
  world.directory.add_group("admin", {}, "ADMIN-GUID");
  world.directory.fail_set_group(kScreenlinkGroups[1], platform::kDirectoryWriteFailed);
  tasks.set_exit(kKickstart, 0);
  EXPECT_EQ(set_screenlink_state(true), 0);
  EXPECT_TRUE(world.directory.group(kScreenlinkGroups[0]));
  EXPECT_FALSE(world.directory.group(kScreenlinkGroups[2]));
  EXPECT_EQ(testing::lines_at(world.log, Priority::Error),
            std::vector<std::string>{"hubwarden_info: couldn't create screenlink group "
                                     "\"com.marlo.local.screenlink_reports\". Got error write failed (-14120)"});

  world.log.clear();
  world.directory.fail_node("/Local/Default", platform::kDirectoryNodeUnavailable);
  EXPECT_EQ(set_screenlink_state(true), 0);
  EXPECT_EQ(testing::lines_at(world.log, Priority::Error),
            std::vector<std::string>{"hubwarden_info: couldn't open local node. Got error (null)"});
  EXPECT_EQ(tasks.count(kKickstart), 4);
}

TEST_F(SwitchesTest, WriteSettingsAppliesTheSwitchesInOrderAndKeepsTheFirstFailure) {
  world.service_manager.set_job(kSshJob, false);
  world.service_manager.fail_job(kSshJob, 1);
  world.service_manager.set_job(kFileSyncJob, false);
  std::vector<size_t> set_calls_seen_by_kickstart;
  tasks.set_handler(kKickstart, [&](const platform::FakeTasks::Invocation&) {
    set_calls_seen_by_kickstart.push_back(world.service_manager.set_calls().size());
    platform::TaskResult r;
    r.launched = true;
    r.exit_status = 0;
    return r;
  });
  Dict context;
  ReplySlot reply;
  Dict request{{"command", "writeSettings"},
               {"configuration", Dict{{"enableFileSyncAgent", true}, {"enableSSH", 1}, {"enableScreenlink", true}}}};
  ASSERT_EQ(write_settings(request, reply, &context), nullptr);
  EXPECT_EQ(*reply->find("writeStatus")->as_unsigned(), uint64_t{kSshEnableFailed});
  EXPECT_EQ(world.service_manager.set_calls(),
            (std::vector<FakeServiceManager::SetCall>{{kSshJob, true}, {kFileSyncJob, true}}));
  EXPECT_EQ(set_calls_seen_by_kickstart, (std::vector<size_t>{1, 1}));
}

}  // namespace
}  // namespace hubwarden
