// Software update jobs against scripted tools, a scripted signal service
// and a status file in a sandbox root.
#include <errno.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "platform/fake/fake_event_monitor.h"
#include "platform/fake/fake_log.h"
#include "platform/fake/fake_process_signals.h"
#include "platform/fake/fake_tasks.h"
#include "plist/codec.h"
#include "request/operations.h"
#include "request/spine_test_support.h"
#include "swupdate/periodic_check.h"
#include "swupdate/swupdate_status.h"

namespace hubwarden {
namespace {

using Args = std::vector<std::string>;
using testing::Installed;
using testing::keys_of;

class SoftwareUpdateTest : public ::testing::Test {
 protected:
  SoftwareUpdateTest() : tasks_slot_(&tasks_), signals_slot_(&signals_), log_slot_(&log_), events_slot_(&events_) {}

  void write_status(const Dict& status) { root_.write(kSoftwareUpdateStatusPath, plist::write_xml(status)); }
  Args launched_args() { return tasks_.last(kSoftwareUpdateTool).value_or(platform::FakeTasks::Invocation{}).args; }
  int launches() { return tasks_.count(kSoftwareUpdateTool); }
  std::string result(ReplySlot& reply) { return *reply->find_string("result"); }

  testing::SandboxRoot root_;
  platform::FakeTasks tasks_;
  platform::FakeProcessSignals signals_;
  platform::FakeLog log_;
  platform::FakeEventMonitor events_;
  Installed<platform::Tasks> tasks_slot_;
  Installed<platform::ProcessSignals> signals_slot_;
  Installed<platform::Log> log_slot_;
  Installed<platform::EventMonitor> events_slot_;
  Dict context_;
  std::string status_path_ = swupdate_status_path();
};

TEST_F(SoftwareUpdateTest, RequestsQueueWhileAJobRunsAndTheQueueStartsWhenItEnds) {
  ReplySlot reply;
  start_swupdate_scan(nullptr, reply, &context_);
  EXPECT_EQ(result(reply), "REQUEST_STARTED");
  EXPECT_EQ(launched_args(), (Args{"softwareupdate", "-q", "-l", "-f", status_path_}));
  EXPECT_EQ(context_.find("swupdatePid")->to_int64(), 4242);

  // Only the first queued install counts; a queued scan keeps its language.
  start_swupdate_install(Dict{{"swupdatesArray", Array{"a", "b"}}}, reply, &context_);
  EXPECT_EQ(result(reply), "REQUEST_QUEUED");
  start_swupdate_install(Dict{{"swupdatesArray", Array{"b", "c"}}, {"language", "it"}}, reply, &context_);
  Value fr = "fr";
  start_swupdate_scan(&fr, reply, &context_);
  EXPECT_EQ(result(reply), "REQUEST_QUEUED");
  EXPECT_EQ(*context_.find("swupdatesArray"), Value(Array{"a", "b"}));
  EXPECT_EQ(*context_.find_string("language"), "fr");
  EXPECT_EQ(launches(), 1);

  // The tool's own pid replaces the forked one; while it lives nothing starts.
  write_status(Dict{{"phase", "SCANNING"}, {"pid", 5000}});
  EXPECT_EQ(periodic_swupdate_handler(&context_), nullptr);
  EXPECT_EQ(context_.find("swupdatePid")->to_int64(), 5000);
  EXPECT_EQ(launches(), 1);

  // Finished: the queued install runs first, in the queued scan's language.
  write_status(Dict{{"phase", "DONE"}, {"pid", 5000}});
  periodic_swupdate_handler(&context_);
  EXPECT_EQ(launched_args(), (Args{"softwareupdate", "-q", "-i", "-f", status_path_, "--lang", "fr", "a", "b"}));
  EXPECT_FALSE(context_.contains("swupdatesArray") || context_.contains("swupdateScanRequested"));

  // Gone without a status file and nothing queued: back to idle.
  ::unlink(status_path_.c_str());
  periodic_swupdate_handler(&context_);
  EXPECT_FALSE(context_.contains("swupdateActive") || context_.contains("swupdatePid"));
  EXPECT_EQ(launches(), 2);

  // A failed launch queues the job; the periodic step then reports it.
  tasks_.set_launch(kSoftwareUpdateTool, platform::DetachedLaunch{-1, EAGAIN, 0});
  start_swupdate_scan(nullptr, reply, &context_);
  EXPECT_EQ(reply->find("status")->to_int64(), 8);
  EXPECT_EQ(result(reply), "REQUEST_QUEUED");
  EXPECT_TRUE(log_.contains(platform::Priority::Error, "cannot fork(/usr/sbin/softwareupdate)"));
  context_.set("swupdateActive", true);
  EXPECT_STREQ(periodic_swupdate_handler(&context_), kCannotLaunchUpdateError);

  // A pending restart refuses new jobs, "YES" as much as true.
  start_swupdate_install(Dict{{"swupdatesArray", "a"}}, reply, &context_);
  EXPECT_EQ(result(reply), "PARAMETER_ERROR");
  write_status(Dict{{"phase", "DONE"}, {"restartRequired", "YES"}});
  update_swupdate_state(&context_);
  start_swupdate_install(Dict{{"swupdatesArray", Array{"a"}}}, reply, &context_);
  EXPECT_EQ(result(reply), "RESTART_REQUIRED");
  start_swupdate_scan(nullptr, reply, &context_);
  EXPECT_EQ(result(reply), "RESTART_REQUIRED");
}

TEST_F(SoftwareUpdateTest, DeadJobsCrashedJobsAndBadStatusFiles) {
  // Dead while "INSTALLING" with every result done: worked around once, and
  // a scan rebuilds the status.
  context_ = Dict{{"swupdateActive", true}, {"swupdatePid", 4242}};
  signals_.pid_results[5000] = ESRCH;
  write_status(Dict{{"phase", "INSTALLING"},
                    {"pid", 5000},
                    {"phaseResultsArray", Array{Dict{{"phase", "DONE"}}, Dict{{"name", "x"}}, "junk"}}});
  EXPECT_EQ(periodic_swupdate_handler(&context_), nullptr);
  EXPECT_TRUE(log_.contains(platform::Priority::Notice, "crashed, working around #3162214"));
  EXPECT_FALSE(root_.exists(kSoftwareUpdateStatusPath));
  EXPECT_EQ(launched_args()[2], "-l");

  // Any other unfinished phase: reported on every call, nothing started.
  log_.clear();
  context_.set("swupdatePid", 5000);
  write_status(Dict{{"phase", "DOWNLOADING"}, {"pid", 5000}});
  periodic_swupdate_handler(&context_);
  periodic_swupdate_handler(&context_);
  EXPECT_EQ(log_.lines(), (Args(2, "hubwarden_info: unexpected Software Update state: crashed")));
  EXPECT_EQ(launches(), 1);
  EXPECT_TRUE(plist::is_flag_set(context_.find("swupdateActive")));

  write_status(Dict{{"phase", "INSTALLING"}, {"pid", 5000}, {"phaseResultsArray", "DONE"}});
  EXPECT_EQ(update_swupdate_state(&context_), kSwupdateCrashed);

  // Pids that name no single other process are never probed.
  signals_.sent.clear();
  for (Value pid : {Value(1), Value(0), Value(-1), Value(int64_t{1} << 40), Value(::getpid()), Value("5000")}) {
    context_.set("swupdatePid", 4242);
    write_status(Dict{{"phase", "SCANNING"}, {"pid", pid}});
    EXPECT_EQ(update_swupdate_state(&context_), kSwupdateCrashed);
  }
  EXPECT_TRUE(signals_.sent.empty());

  // A file that is not a property list counts as missing.
  context_.set("swupdatePid", 4242);
  root_.write(kSoftwareUpdateStatusPath, "<plist><dict><key>pid</key>");
  EXPECT_EQ(update_swupdate_state(&context_), kSwupdateGone);
  EXPECT_EQ(update_swupdate_state(&context_), kSwupdateFinished);
}

TEST_F(SoftwareUpdateTest, StatusIgnoreAndReboot) {
  ReplySlot reply;
  context_.set("swupdateActive", true);
  EXPECT_EQ(get_swupdate_status(reply, &context_), nullptr);
  EXPECT_EQ(*reply, (Dict{{"status", 0}}));
  EXPECT_TRUE(context_.contains("swupdateActive")) << "no periodic step without the tool";

  tasks_.set_exit(kSoftwareUpdateTool, 0);
  tasks_.set_launch(kSoftwareUpdateTool, platform::DetachedLaunch{4242, 0, 0});
  write_status(Dict{{"phase", "UPTODATE"}});
  Dict request{{"identifiersToIgnore", Array{"-rf", "a b;$(c)"}}};
  EXPECT_EQ(ignore_swupdate_identifiers(request, reply, &context_), nullptr);
  auto calls = tasks_.invocations();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].args, (Args{"softwareupdate", "--ignore", "-rf", "a b;$(c)"}));
  EXPECT_EQ(calls[1].args, (Args{"softwareupdate", "-q", "-l", "-f", status_path_}));
  EXPECT_EQ(keys_of(*reply), (Args{"startSWUpdateScanVersion", "startSWUpdateInstallVersion", "swupdateStatus",
                                   "status", "identifiersIgnored"}));
  EXPECT_FALSE(context_.contains("swupdateActive"));

  tasks_.set_exit(kSoftwareUpdateTool, 1);
  reply.reset();
  EXPECT_STREQ(reset_ignored_swupdate_identifiers(reply, &context_), kCannotLaunchUpdateError);
  EXPECT_FALSE(reply);

  tasks_.set_exit("/sbin/reboot", 1, "no");
  reboot_post_swupdate({}, reply, &context_);
  EXPECT_EQ(*reply, (Dict{{"status", 1}, {"rebootStatus", "CANNOT_REBOOT_ERR: 1"}}));
  tasks_.set_exit("/sbin/reboot", 0, "going down\n");
  reboot_post_swupdate({}, reply, &context_);
  EXPECT_EQ(*reply, (Dict{{"status", 0}, {"rebootStatus", "going down\n"}}));
}

TEST_F(SoftwareUpdateTest, PeriodicCheckScansAndAnnouncesOnlyWithTheRule) {
  write_status(
      Dict{{"phase", "DONE"},
           {"phaseResultsArray",
            Array{Dict{{"name", "libfoo"}, {"version", "1.2-3"}, {"sizeInKB", 1500}, {"restartRequired", true}},
                  Dict{{"name", "hidden"}, {"ignored", true}}, "junk"}}});
  auto run_ticks = [&](std::initializer_list<int> ticks) {
    for (int tick : ticks) {
      context_.remove("swupdateActive");
      EventPortSession port;
      periodic_swupdate_check(&context_, tick, port);
    }
  };
  run_ticks({0, 5});
  EXPECT_EQ(launches(), 0);
  EXPECT_TRUE(events_.posts.empty());

  root_.write("/etc/sentryd.d/rules/SWUpdate.plist", "<plist><dict/></plist>");
  run_ticks({0, 720, -720, 1, 6, 715, -5, 1446});
  EXPECT_EQ(launches(), 3);
  EXPECT_TRUE(events_.posts.empty());
  run_ticks({5, 725});
  ASSERT_EQ(events_.posts.size(), 2u);
  EXPECT_EQ(events_.posts[0].event, (Dict{{"event_type", "com.marlo.hubwarden_info.swupdateavailable"},
                                          {"name", "libfoo"},
                                          {"version", "1.2-3"},
                                          {"size", "1.5 MB"},
                                          {"isRestartRequired", "Yes"}}));
  EXPECT_EQ(events_.posts[1].port, 2);
}

}  // namespace
}  // namespace hubwarden
