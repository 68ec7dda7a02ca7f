// The time daemon's configuration rewrite, its job switch and the one-shot
// synchronisation tool.
#include "identity/ntp_conf.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <functional>
#include <string>
#include <vector>

#include "platform/fake/fake_service_manager.h"
#include "platform/fake/fake_tasks.h"
#include "platform/file_util.h"
#include "platform/host_services.h"
#include "platform/linux/basics_test_support.h"
#include "request/globals.h"
#include "request/operations.h"
#include "testing/settings_doubles.h"

namespace hubwarden {
namespace {

using platform::testing::ScopedService;

constexpr char kLocalClock[] = "server 127.127.1.1 minpoll 5 maxpoll 7 prefer\nfudge 127.127.1.1 refid LCL\n";

class CollectingQueue : public platform::BackgroundQueue {
 public:
  void dispatch(std::function<void()> work) override { work_.push_back(std::move(work)); }
  void run_all() {
    for (auto& w : work_) w();
    work_.clear();
  }
  size_t size() const { return work_.size(); }

 private:
  std::vector<std::function<void()>> work_;
};

class NtpConfTest : public ::testing::Test {
 protected:
  ~NtpConfTest() override { gRunningUnderHubwardend = false; }

  std::string conf() const {
    std::optional<std::string> text = platform::read_file(root.path(kNtpConfPath));
    return text.value_or("<missing>");
  }
  void put(const std::string& text) { root.write(kNtpConfPath, text); }

  platform::testing::ScratchRoot root;
  platform::testing::CapturedLog log;
  platform::FakeServiceManager services;
  ScopedService<platform::ServiceManager> services_in{&services};
  platform::FakeTasks tasks;
  ScopedService<platform::Tasks> tasks_in{&tasks};
};

TEST_F(NtpConfTest, NewFileThenLocalClockThenNamedServerAgain) {
  EXPECT_EQ(set_ntp_conf_file(kNtpConfPath, std::string("time.example.com")), 0);
  EXPECT_EQ(conf(), "server time.example.com");  // deliberately no line end

  EXPECT_EQ(set_ntp_conf_file(kNtpConfPath, std::string("Local")), 0);
  EXPECT_EQ(conf(), kLocalClock);
  EXPECT_EQ(conf().size(), 74u);

  // The fudge line belongs to the local clock's server line: both go.
  EXPECT_EQ(set_ntp_conf_file(kNtpConfPath, std::string("b.example.com")), 0);
  EXPECT_EQ(conf(), "server b.example.com\n");

  // Any letter case, and no name at all, mean this server's own clock.
  put("# mine\nserver keep.example.com\n");
  EXPECT_EQ(set_ntp_conf_file(kNtpConfPath, std::string("LOCAL")), 0);
  EXPECT_EQ(conf(), kLocalClock);
  put("server x\n");
  EXPECT_EQ(set_ntp_conf_file(kNtpConfPath, std::nullopt), 0);
  EXPECT_EQ(conf(), kLocalClock);
  EXPECT_TRUE(log.entries().empty());
}

TEST_F(NtpConfTest, OnlyTheFirstServerLineIsRewritten) {
  const std::string binary("\x00\xff\x7fserver \r\n\x01", 12);
  struct Case {
    std::string old_text;
    std::string expected;
  } cases[] = {
      {"# clock\nserver old.example.com\nserver other.example.com\n",
       "server n.example.com\n# clock\nserver old.example.com\nserver other.example.com\n"},
      {"server old.example.com", "server n.example.com\n"},
      {"server old\ndriftfile /var/lib/ntp/drift\nserver second\n",
       "server n.example.com\ndriftfile /var/lib/ntp/drift\nserver second\n"},
      {"server old\nrestrict default nomodify\ndriftfile /d\n", "server n.example.com\ndriftfile /d\n"},
      {"server old\nfudge 127.127.1.1 stratum 10", "server n.example.com\n"},
      {"server old\r\nfudge x\r\ndriftfile /d\r\n", "server n.example.com\ndriftfile /d\r\n"},
      {"server old\rrestrict x\rdriftfile /d\rserver second\r", "server n.example.com\ndriftfile /d\rserver second\r"},
      {"server old\rpool p.example.com\r", "server n.example.com\npool p.example.com\r"},
      {"servers old\n", "server n.example.com\nservers old\n"},
      {binary, "server n.example.com\n" + binary},
  };
  for (const Case& c : cases) {
    put(c.old_text);
    EXPECT_EQ(set_ntp_conf_file(kNtpConfPath, std::string("n.example.com")), 0);
    EXPECT_EQ(conf(), c.expected) << c.old_text;
  }
}

TEST_F(NtpConfTest, BadFilesAndNamesNeverLeaveAHalfWrittenFile) {
  // A large file is rewritten whole.
  std::string big(10 << 20, '#');
  big[big.size() - 1] = '\n';
  put(big);
  EXPECT_EQ(set_ntp_conf_file(kNtpConfPath, std::string("n.example.com")), 0);
  EXPECT_EQ(conf(), "server n.example.com\n" + big);

  // An empty file, and a folder where the file should be, are logged and
  // left alone.
  put("");
  EXPECT_EQ(set_ntp_conf_file(kNtpConfPath, std::string("n.example.com")), 0);
  EXPECT_EQ(conf(), "");
  EXPECT_TRUE(log.contains(platform::Priority::Error,
                           "hubwarden_info: set_ntp_conf_file: couldn't read file /etc/ntp.conf. returning 0 anyway."));
  ::unlink(root.path(kNtpConfPath).c_str());
  root.mkdir(kNtpConfPath);
  EXPECT_EQ(set_ntp_conf_file(kNtpConfPath, std::string("n.example.com")), 0);
  ::rmdir(root.path(kNtpConfPath).c_str());

  // A name that would add directives of its own is refused.
  put("server old\n");
  EXPECT_EQ(set_ntp_conf_file(kNtpConfPath, std::string("evil\nrestrict default")), 1);
  EXPECT_EQ(set_ntp_conf_file(kNtpConfPath, std::string("evil\0x", 6)), 1);
  EXPECT_EQ(conf(), "server old\n");

  // The rewrite keeps the file's permissions.
  ::chmod(root.path(kNtpConfPath).c_str(), 0600);
  EXPECT_EQ(set_ntp_conf_file(kNtpConfPath, std::string("n.example.com")), 0);
  struct stat st;
  ASSERT_EQ(::stat(root.path(kNtpConfPath).c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);

  // No folder to create the file in: 1, and nothing else changes.
  root.write("/etc2", "a file");
  EXPECT_EQ(set_ntp_conf_file("/etc2/ntp.conf", std::string("n.example.com")), 1);
  EXPECT_EQ(*platform::read_file(root.path("/etc2")), "a file");
  EXPECT_EQ(platform::testing::entry_names(root.path("/etc")), std::set<std::string>{"ntp.conf"});
}

TEST_F(NtpConfTest, StateServesTheLocalClockOnlyWhenNotFollowingAServer) {
  const std::string job = kNtpJob;
  services.set_job(job, false);
  EXPECT_EQ(set_ntp_state(false, true, std::string("a.example.com")), 0);
  EXPECT_EQ(conf(), kLocalClock);
  EXPECT_EQ(set_ntp_state(true, true, std::string("a.example.com")), 0);
  EXPECT_EQ(conf(), "server a.example.com\n");
  EXPECT_EQ(set_ntp_state(false, false, std::string("b.example.com")), 0);
  EXPECT_EQ(conf(), "server b.example.com\n");
  EXPECT_EQ(set_ntp_state(true, false, std::string("bad\nname")), 1);
  using Call = platform::FakeServiceManager::SetCall;
  EXPECT_EQ(services.set_calls(), (std::vector<Call>{{job, true}, {job, true}, {job, false}, {job, true}}));
}

TEST_F(NtpConfTest, SynchronisationRunsTheToolInPlaceOrInTheBackground) {
  tasks.set_exit(kNtpdatePath, 0);
  EXPECT_EQ(do_sync_with_ntp_server("time.example.com"), 0);
  EXPECT_EQ(tasks.last(kNtpdatePath)->args, (std::vector<std::string>{"ntpdate", "-ub", "time.example.com"}));
  EXPECT_GT(tasks.last(kNtpdatePath)->timeout_seconds, 0);

  tasks.set_exit(kNtpdatePath, 1);
  EXPECT_EQ(sync_with_ntp_server("time.example.com"), 1);
  EXPECT_TRUE(log.contains(platform::Priority::Error, "/usr/sbin/ntpdate returned error 1"));

  // An option in disguise never reaches the tool.
  tasks.clear_invocations();
  EXPECT_EQ(do_sync_with_ntp_server("-q"), 1);
  EXPECT_EQ(do_sync_with_ntp_server(""), 1);
  EXPECT_EQ(tasks.count(kNtpdatePath), 0);

  // Inside the daemon the request does not wait for the time server.
  CollectingQueue queue;
  ScopedService<platform::BackgroundQueue> queue_in(&queue);
  gRunningUnderHubwardend = true;
  EXPECT_EQ(sync_with_ntp_server("time.example.com"), 0);
  EXPECT_EQ(tasks.count(kNtpdatePath), 0);
  queue.run_all();
  EXPECT_EQ(tasks.count(kNtpdatePath), 1);
}

// The console's time server keys, through writeSettings: the configuration
// and the job follow them, and a new server is synchronised with once, in
// the background, instead of the clock being set by hand.
TEST(NtpWriteSettingsTest, TimeServerKeysTakeEffect) {
  testing::SettingsWorld world;
  platform::FakeTasks tasks;
  ScopedService<platform::Tasks> tasks_in(&tasks);
  CollectingQueue queue;
  ScopedService<platform::BackgroundQueue> queue_in(&queue);
  world.run_under_daemon();
  world.service_manager.set_job(kNtpJob, false);
  auto write = [&](Dict configuration, Dict* context) {
    ReplySlot reply;
    write_settings(Dict{{"configuration", std::move(configuration)}, {"getDetails", 0}}, reply, context);
    return *reply->find("writeStatus")->as_unsigned();
  };

  Dict context;
  EXPECT_EQ(write(Dict{{"ntpTimeServe", true}}, &context), 0u);
  EXPECT_EQ(*platform::read_file(world.path(kNtpConfPath)), kLocalClock);
  EXPECT_TRUE(world.service_manager.job_enabled(kNtpJob));

  const double before = world.clock.now();
  EXPECT_EQ(write(Dict{{"ntpTimeSync", 1}, {"ntpServerName", "a.example.com"}, {"currentTime", uint64_t{1900000000}}},
                  &context),
            0u);
  EXPECT_EQ(*platform::read_file(world.path(kNtpConfPath)), "server a.example.com\n");
  EXPECT_EQ(*context.find_string("previousNTPServerNameStore"), "a.example.com");
  EXPECT_EQ(world.clock.now(), before);
  EXPECT_EQ(tasks.count(kNtpdatePath), 0);
  queue.run_all();  // the cached state's refresh runs there too
  ASSERT_EQ(tasks.count(kNtpdatePath), 1);
  EXPECT_EQ(tasks.last(kNtpdatePath)->args.back(), "a.example.com");

  // Nothing changed: no second synchronisation.
  EXPECT_EQ(write(Dict{{"ntpTimeSync", 1}, {"ntpServerName", "a.example.com"}}, &context), 0u);
  queue.run_all();
  EXPECT_EQ(tasks.count(kNtpdatePath), 1);
  world.service_manager.fail_job(kNtpJob, 5);
  // Time still served (the job is on) but no longer followed: the local
  // clock. A failed switch of the job is not reported.
  EXPECT_EQ(write(Dict{{"ntpTimeSync", 0}}, &context), 0u);
  EXPECT_EQ(*platform::read_file(world.path(kNtpConfPath)), kLocalClock);
}

}  // namespace
}  // namespace hubwarden
