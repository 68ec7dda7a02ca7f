// The network change watch: snapshot differences, the host name rules, and
// a burst of store changes settling into one check.
#include "identity/hostname_watch.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "platform/fake/fake_host_info.h"
#include "platform/fake/fake_store_watcher.h"
#include "platform/fake/manual_run_loop.h"
#include "platform/file_util.h"
#include "platform/host_services.h"
#include "platform/linux/basics_test_support.h"
#include "platform/notifications.h"
#include "platform/sysconfig.h"
#include "request/globals.h"
#include "request/operations.h"
#include "settings/settings_file.h"

namespace hubwarden {
namespace {

using namespace std::chrono_literals;
using platform::StoreKey;
using platform::testing::ScopedService;

Dict interface(const std::string& name, const std::string& address, bool primary = false, const std::string& dns = "") {
  return Dict{{"name", name},
              {"family", "AF_INET"},
              {"ipAddress", address},
              {"isPrimaryIPv4Interface", primary},
              {"dnsName", dns}};
}

TEST(CreateDiff, WalksTheLongerSnapshotOnly) {
  Array en0{interface("en0", "10.0.0.2")};
  Array en0_moved{interface("en0", "10.0.0.3")};
  Array en0_en1{interface("en0", "10.0.0.2"), interface("en1", "10.0.1.2")};
  Array en0_en2{interface("en0", "10.0.0.2"), interface("en2", "10.0.2.2")};
  Array empty;
  // The same members in another order are the same interface.
  Array en0_reordered{Dict{{"dnsName", ""},
                           {"isPrimaryIPv4Interface", false},
                           {"ipAddress", "10.0.0.2"},
                           {"family", "AF_INET"},
                           {"name", "en0"}}};
  Array unnamed{Dict{{"family", "AF_INET"}}, interface("en1", "10.0.1.2")};

  struct Case {
    const Array* old_state;
    const Array* new_state;
    std::string diff;
  } cases[] = {
      {nullptr, nullptr, ""},
      {&empty, &empty, ""},
      {nullptr, &empty, ""},
      {&en0, &en0_reordered, ""},
      {&en0, &en0_en1, "en1"},
      {&en0_en1, &en0, "en1"},
      {&en0, &en0_moved, "en0"},
      {nullptr, &en0_en1, "en0,en1"},
      {&en0_en1, &empty, "en0,en1"},
      // Equal counts: the old snapshot is walked, so the interface that
      // came shows only through the one it replaced.
      {&en0_en1, &en0_en2, "en1"},
      {&en0_en2, &en0_en1, "en2"},
      // An entry without a name has nothing to be reported by.
      {&unnamed, &empty, "en1"},
      {&en0, &unnamed, "en1"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message() << "old " << (c.old_state ? c.old_state->size() : -1) << " new "
                                      << (c.new_state ? c.new_state->size() : -1) << " expect " << c.diff);
    EXPECT_EQ(CreateDiff(c.old_state, c.new_state), c.diff);
  }

  // The first match by name wins; later duplicates are not looked at.
  Array duplicates{interface("en0", "10.0.0.9"), interface("en0", "10.0.0.2")};
  ASSERT_NE(FindElementInArray(duplicates, "en0"), nullptr);
  EXPECT_EQ(*FindElementInArray(duplicates, "en0")->find_string("ipAddress"), "10.0.0.9");
  EXPECT_EQ(FindElementInArray(duplicates, "en1"), nullptr);
}

TEST(SendNetChangedNotification, PostsOnlyADifference) {
  std::vector<platform::Notification> seen;
  auto& center = platform::default_center();
  auto id = center.add_observer(kNetChangedNotification, [&](const platform::Notification& n) { seen.push_back(n); });
  Array before{interface("en0", "10.0.0.2")};
  Array after{interface("en0", "10.0.0.2"), interface("en1", "10.0.1.2")};
  SendNetChangedNotification(&before, &before);
  Array empty;
  SendNetChangedNotification(&empty, &empty);
  SendNetChangedNotification(&before, &after);
  center.remove_observer(id);

  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].object, std::optional<std::string>("com.marlo.hubwarden_info"));
  Dict expected{{"changes", "en1"}, {"oldState", before}, {"newState", after}};
  EXPECT_EQ(seen[0].user_info, expected);
}

// A preferences session that records each step and can be told to fail.
class RecordingConfiguration : public platform::SystemConfiguration {
 public:
  std::vector<std::string> steps;
  bool fail_lock = false;
  platform::FakeHostInfo* host = nullptr;  // takes the applied name

  bool open(const std::string&) override { return true; }
  std::optional<std::string> computer_name() override { return std::nullopt; }
  std::optional<std::string> local_host_name() override { return std::nullopt; }
  std::unique_ptr<platform::PreferencesSession> open_preferences(const std::string& client_name) override {
    steps.push_back("open " + client_name);
    return std::make_unique<Session>(this);
  }

 private:
  class Session : public platform::PreferencesSession {
   public:
    explicit Session(RecordingConfiguration* owner) : owner_(owner) {}
    bool lock() override {
      owner_->steps.push_back("lock");
      return !owner_->fail_lock;
    }
    bool set_computer_name(const std::string&) override { return false; }
    bool set_local_host_name(const std::string&) override { return false; }
    bool set_host_name(const std::string& name) override {
      owner_->steps.push_back("set " + name);
      staged_ = name;
      return true;
    }
    bool commit() override {
      owner_->steps.push_back("commit");
      return true;
    }
    bool apply() override {
      owner_->steps.push_back("apply");
      if (owner_->host) owner_->host->name = staged_;
      return true;
    }
    void unlock() override { owner_->steps.push_back("unlock"); }

   private:
    RecordingConfiguration* owner_;
    std::string staged_;
  };
};

class HostNameTest : public ::testing::Test {
 protected:
  HostNameTest() {
    reset_settings_lock_for_testing();
    config.host = &host;
  }
  ~HostNameTest() override { reset_settings_lock_for_testing(); }

  std::string settings_text() const { return platform::read_file(root.path(kSettingsFilePath)).value_or("<none>"); }
  Dict settings() const { return read_settings_file().value_or(Dict()); }

  platform::testing::ScratchRoot root;
  platform::testing::CapturedLog log;
  platform::FakeHostInfo host;
  ScopedService<platform::HostInfo> host_in{&host};
  RecordingConfiguration config;
  ScopedService<platform::SystemConfiguration> config_in{&config};
};

TEST_F(HostNameTest, NothingIsRecordedWithoutAllThreeValuesOrWithALocalDnsName) {
  check_host_name("srv", std::nullopt, std::nullopt);  // as the cached state calls it
  check_host_name("srv", "", "10.0.0.2");
  check_host_name("srv", "localhost", "10.0.0.2");
  check_host_name(std::nullopt, "srv.example.com", "10.0.0.2");
  check_host_name("srv", "srv.example.com", std::nullopt);
  EXPECT_EQ(settings_text(), "<none>");
  EXPECT_TRUE(config.steps.empty());
}

TEST_F(HostNameTest, FirstCheckThenSyncedDnsRenameFollowsIt) {
  check_host_name("a.example.com", "a.example.com", "10.0.0.2");
  Dict first{{"oldDNSName", "a.example.com"},
             {"oldHostName", "a.example.com"},
             {"hostNameIsSynced", true},
             {"oldPrimaryIP", "10.0.0.2"}};
  EXPECT_EQ(settings(), first);
  EXPECT_TRUE(config.steps.empty());

  // Nothing changed: nothing written.
  std::string before = settings_text();
  check_host_name("a.example.com", "a.example.com", "10.0.0.2");
  EXPECT_EQ(settings_text(), before);

  check_host_name("a.example.com", "b.example.com", "10.0.0.2");
  std::vector<std::string> steps{
      "open com.marlo.hubwardend.hubwarden_dns", "lock", "set b.example.com", "commit", "apply", "unlock"};
  EXPECT_EQ(config.steps, steps);
  EXPECT_EQ(host.name, std::optional<std::string>("b.example.com"));
  Dict renamed{{"oldDNSName", "b.example.com"},
               {"oldHostName", "b.example.com"},
               {"hostNameIsSynced", true},
               {"oldPrimaryIP", "10.0.0.2"}};
  EXPECT_EQ(settings(), renamed);

  // A rename that fails is recorded all the same, so it is not retried.
  config.steps.clear();
  config.fail_lock = true;
  check_host_name("b.example.com", "c.example.com", "10.0.0.3");
  EXPECT_EQ(config.steps, (std::vector<std::string>{"open com.marlo.hubwardend.hubwarden_dns", "lock"}));
  EXPECT_EQ(*settings().find_string("oldHostName"), "c.example.com");
  EXPECT_EQ(*settings().find_string("oldPrimaryIP"), "10.0.0.3");
  config.steps.clear();
  check_host_name("b.example.com", "c.example.com", "10.0.0.3");
  EXPECT_TRUE(config.steps.empty());
}

TEST_F(HostNameTest, NotSyncedFollowsTheHostNameAndAddressButNotTheDnsName) {
  check_host_name("srv", "a.example.com", "10.0.0.2");
  Dict first{{"oldDNSName", "a.example.com"},
             {"oldHostName", "srv"},
             {"hostNameIsSynced", false},
             {"oldPrimaryIP", "10.0.0.2"}};
  EXPECT_EQ(settings(), first);

  std::string before = settings_text();
  check_host_name("srv", "b.example.com", "10.0.0.2");
  EXPECT_EQ(settings_text(), before);

  check_host_name("srv2", "b.example.com", "10.0.0.5");
  Dict moved{{"oldDNSName", "a.example.com"},
             {"oldHostName", "srv2"},
             {"hostNameIsSynced", false},
             {"oldPrimaryIP", "10.0.0.5"}};
  EXPECT_EQ(settings(), moved);
  EXPECT_TRUE(config.steps.empty());
}

TEST_F(HostNameTest, WithoutForceOnlyALinkLocalNameIsReplaced) {
  host.name = "srv.example.com";
  EXPECT_EQ(set_host_name("new.example.com", false), nullptr);
  host.name = "localhost";
  EXPECT_EQ(set_host_name("new.example.com", false), nullptr);
  EXPECT_TRUE(config.steps.empty());

  host.name = "office-mac.local";
  EXPECT_EQ(set_host_name("new.example.com", false), nullptr);
  EXPECT_EQ(host.name, std::optional<std::string>("new.example.com"));
  config.fail_lock = true;
  EXPECT_STREQ(set_host_name("other.example.com", true), "CANNOT_SET_HOSTNAME_ERR");
}

// The interface snapshot, swapped by the test between checks.
class ScriptedNetwork : public platform::Network {
 public:
  Array snapshot;
  int complete_calls = 0;
  Array get_interfaces_info(bool complete) override {
    if (complete) ++complete_calls;
    return snapshot;
  }
  std::vector<std::string> host_names_for_address(const std::optional<std::string>&, double) override { return {}; }
};

// One stored context, handed out and back.
class OneContext : public platform::ModuleManager {
 public:
  Dict context;
  std::vector<std::string> taken, given;
  std::vector<std::string> module_names() override { return {}; }
  std::optional<Dict> do_command(const Dict&, const std::string&, const std::string&) override { return std::nullopt; }
  Dict* get_and_lock_context(const std::string& module, int*, bool*) override {
    taken.push_back(module);
    return &context;
  }
  void set_and_unlock_context(Dict*, const std::string& module, int*) override { given.push_back(module); }
};

class Queue : public platform::BackgroundQueue {
 public:
  std::vector<std::function<void()>> work;
  void dispatch(std::function<void()> w) override { work.push_back(std::move(w)); }
};

class WatchTest : public HostNameTest {
 protected:
  WatchTest() { reset_hostname_watch_for_testing(); }
  ~WatchTest() override {
    reset_hostname_watch_for_testing();
    gRunningUnderHubwardend = false;
  }

  ScriptedNetwork network;
  ScopedService<platform::Network> network_in{&network};
  OneContext modules;
  ScopedService<platform::ModuleManager> modules_in{&modules};
  platform::FakeStoreWatcher watcher;
  ScopedService<platform::StoreWatcher> watcher_in{&watcher};
  Queue queue;
  ScopedService<platform::BackgroundQueue> queue_in{&queue};
};

TEST_F(WatchTest, ABurstOfChangesSettlesIntoOneCheckFiveSecondsAfterItsStart) {
  platform::ManualRunLoop loop;
  ScopedService<platform::RunLoop> loop_in{&loop};
  host.name = "srv.example.com";
  network.snapshot = {interface("en0", "10.0.0.2", true, "srv.example.com")};
  init_info_hostname();

  ASSERT_EQ(watcher.opened().size(), 1u);
  std::vector<StoreKey> keys{StoreKey::kIPv4Entities, StoreKey::kIPv6Entities, StoreKey::kHostNames,
                             StoreKey::kComputerName};
  EXPECT_EQ(watcher.opened()[0].keys, keys);
  EXPECT_EQ(watcher.opened()[0].client_name, "");
  EXPECT_TRUE(log.contains(platform::Priority::Info, "hubwarden_info ready for notifications"));
  EXPECT_EQ(last_snapshot_for_testing(), std::optional<Array>(network.snapshot));

  std::vector<std::string> changes;
  auto id = platform::default_center().add_observer(kNetChangedNotification, [&](const platform::Notification& n) {
    changes.push_back(*n.user_info.find_string("changes"));
  });

  network.snapshot.push_back(interface("en1", "10.0.1.2"));
  watcher.change(StoreKey::kIPv4Entities);
  watcher.change(StoreKey::kIPv6Entities);
  loop.run_posted();
  loop.advance(3s);
  watcher.change(StoreKey::kHostNames);
  loop.run_posted();
  EXPECT_EQ(loop.pending_timers(), 1);
  EXPECT_EQ(loop.advance(1999ms), 0);
  EXPECT_EQ(loop.advance(1ms), 1);

  EXPECT_EQ(changes, std::vector<std::string>{"en1"});
  EXPECT_EQ(modules.taken, std::vector<std::string>{"hubwarden_info"});
  EXPECT_EQ(modules.given, std::vector<std::string>{"hubwarden_info"});
  EXPECT_NE(modules.context.find_dict("info"), nullptr);
  EXPECT_EQ(*settings().find_string("oldDNSName"), "srv.example.com");
  EXPECT_FALSE(hostname_check_pending_for_testing());
  EXPECT_EQ(last_snapshot_for_testing(), std::optional<Array>(network.snapshot));

  // Inside the daemon the check runs on the background queue, and the
  // next change may arm the timer again only once it has finished.
  gRunningUnderHubwardend = true;
  watcher.change(StoreKey::kComputerName);
  loop.run_posted();
  EXPECT_EQ(loop.advance(5s), 1);
  ASSERT_EQ(queue.work.size(), 1u);
  watcher.change(StoreKey::kComputerName);
  loop.run_posted();
  EXPECT_EQ(loop.pending_timers(), 0);
  queue.work[0]();
  EXPECT_EQ(changes.size(), 1u);  // the snapshot did not change
  watcher.change(StoreKey::kComputerName);
  loop.run_posted();
  EXPECT_EQ(loop.pending_timers(), 1);
  platform::default_center().remove_observer(id);
}

TEST_F(WatchTest, WithoutAWatchTheSnapshotIsStillTaken) {
  network.snapshot = {interface("en0", "10.0.0.2", true, "srv.example.com")};

  watcher.fail_at(platform::StoreWatchFailure::kRegisterKeys);
  {
    platform::ManualRunLoop loop;
    ScopedService<platform::RunLoop> loop_in{&loop};
    init_info_hostname();
    EXPECT_TRUE(log.contains(platform::Priority::Error, "hubwarden_info: cannot register"));
    EXPECT_FALSE(log.contains("ready for notifications"));
    EXPECT_EQ(last_snapshot_for_testing(), std::optional<Array>(network.snapshot));
  }

  // The command-line host has no loop: the session opens, nothing can be
  // delivered, and the snapshot is taken all the same.
  reset_hostname_watch_for_testing();
  watcher.fail_at(platform::StoreWatchFailure::kNone);
  log.clear();
  init_info_hostname();
  EXPECT_EQ(last_snapshot_for_testing(), std::optional<Array>(network.snapshot));
  EXPECT_FALSE(log.contains(platform::Priority::Error, "hubwarden_info"));
  SCPrefsChangedNotificationHandler();
  EXPECT_FALSE(hostname_check_pending_for_testing());
}

}  // namespace
}  // namespace hubwarden
