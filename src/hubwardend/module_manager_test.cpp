#include "hubwardend/module_manager.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "hubwardend/background_queue.h"
#include "hubwardend/requester.h"
#include "platform/fake/fake_process_table.h"
#include "platform/linux/basics_test_support.h"
#include "platform/registry.h"
#include "platform/sleeper.h"

namespace hubwardend {
namespace {

using namespace std::chrono_literals;

class EchoModule : public ServiceModule {
 public:
  explicit EchoModule(std::string name) : name_(std::move(name)) {}
  const std::string& name() const override { return name_; }
  std::optional<plist::Dict> handle(const plist::Dict& request, const std::string& user) override {
    plist::Dict reply{{"module", name_}, {"user", user}};
    if (const plist::Value* command = request.find("command")) reply.set("command", *command);
    return reply;
  }

 private:
  std::string name_;
};

TEST(ModuleManagerTest, ContextHandedBackUnderAnotherNameIsUnlocked) {
  plist::Dict context;
  HostModuleManager manager(&context, 2s);
  ThreadBackgroundQueue queue;

  int fd = 0;
  bool timed_out = true;
  ASSERT_EQ(manager.get_and_lock_context(kInfoModuleName, &fd, &timed_out), &context);
  EXPECT_FALSE(timed_out);
  EXPECT_GT(fd, 0) << "the lease's ticket";
  const int ticket = fd;
  EXPECT_FALSE(manager.context_marked_dirty());

  // While this thread holds the context, background work has to wait.
  std::atomic<bool> got{false};
  queue.dispatch([&] {
    int bg_fd;
    bool bg_timed_out;
    plist::Dict* c = manager.get_and_lock_context(kInfoModuleName, &bg_fd, &bg_timed_out);
    if (!c) return;
    got = true;
    c->set("refreshed", true);
    manager.set_and_unlock_context(c, "hubwardn_info", &bg_fd);
  });
  std::this_thread::sleep_for(50ms);
  EXPECT_FALSE(got);
  // A hand-back naming some other ticket releases nothing of this holder's.
  int stranger = ticket + 1000;
  manager.set_and_unlock_context(&context, kInfoModuleName, &stranger);
  std::this_thread::sleep_for(50ms);
  EXPECT_FALSE(got) << "a lock taken by someone else was released";
  manager.set_and_unlock_context(&context, "hubwardn_info", &fd);  // the module's spelling
  EXPECT_EQ(fd, -1);
  queue.wait_until_idle();
  EXPECT_TRUE(got) << "the lock was released although the name differs";
  EXPECT_TRUE(context.find("refreshed"));
  EXPECT_TRUE(manager.context_marked_dirty());

  // And the lock is free again for anyone.
  ASSERT_EQ(manager.get_and_lock_context(kInfoModuleName, &fd, &timed_out), &context);
  manager.set_and_unlock_context(&context, "some other name", &fd);
  // An extra hand-back does not unlock anything that is not locked.
  manager.set_and_unlock_context(&context, kInfoModuleName, &fd);
  ASSERT_EQ(manager.get_and_lock_context(kInfoModuleName, &fd, &timed_out), &context);
  manager.set_and_unlock_context(&context, kInfoModuleName, &fd);
}

TEST(ModuleManagerTest, LockIsReentrantForItsHolderAndTimesOutForOthers) {
  plist::Dict context;
  HostModuleManager manager(&context, 100ms);
  int fd;
  bool timed_out;
  ASSERT_EQ(manager.get_and_lock_context(kInfoModuleName, &fd, &timed_out), &context);
  // The holder asking again (a module call that asks for its own context)
  // does not deadlock.
  ASSERT_EQ(manager.get_and_lock_context(kInfoModuleName, &fd, &timed_out), &context);
  manager.set_and_unlock_context(&context, kInfoModuleName, &fd);

  bool other_timed_out = false;
  auto from_another_thread = [&] {
    plist::Dict* got = nullptr;
    std::thread([&] { got = manager.get_and_lock_context(kInfoModuleName, &fd, &other_timed_out); }).join();
    return got;
  };
  EXPECT_EQ(from_another_thread(), nullptr) << "still held once";
  EXPECT_TRUE(other_timed_out);
  manager.set_and_unlock_context(&context, kInfoModuleName, &fd);
  EXPECT_EQ(from_another_thread(), &context);
  EXPECT_FALSE(other_timed_out);
  manager.set_and_unlock_context(&context, kInfoModuleName, &fd);

  // Unknown modules have no context to hand out.
  EXPECT_EQ(manager.get_and_lock_context("hubwarden_dns", &fd, &timed_out), nullptr);
}

// A pause that lasts until the test lets it go: a listProcesses that is
// still sampling.
class GatedSleeper : public platform::Sleeper {
 public:
  void sleep_for(double) override {
    std::unique_lock<std::mutex> lock(mu_);
    ++sleeping_;
    changed_.notify_all();
    changed_.wait(lock, [this] { return open_; });
  }
  bool wait_for_sleepers(int n) {
    std::unique_lock<std::mutex> lock(mu_);
    return changed_.wait_for(lock, 10s, [&] { return sleeping_ >= n; });
  }
  void open() {
    std::lock_guard<std::mutex> lock(mu_);
    open_ = true;
    changed_.notify_all();
  }

 private:
  std::mutex mu_;
  std::condition_variable changed_;
  int sleeping_ = 0;
  bool open_ = false;
};

TEST(ModuleManagerTest, PausedReadingRequestsHoldNoOneUpAndTheirChangesAreMerged) {
  platform::testing::ScratchRoot root;
  platform::FakeProcessTable table;
  table.add(1, "init");
  GatedSleeper sleeper;
  platform::testing::ScopedService<platform::ProcessTable> installed_table(&table);
  platform::testing::ScopedService<platform::Sleeper> installed_sleeper(&sleeper);

  plist::Dict context{{"kept", "as it was"}};
  HostModuleManager manager(&context, 2s);
  std::vector<std::thread> listings;
  for (int i = 0; i < 2; ++i)
    listings.emplace_back([&] { manager.process_request(plist::Dict{{"command", "listProcesses"}}, "admin"); });
  ASSERT_TRUE(sleeper.wait_for_sleepers(2));

  // Both listings are paused; the context is free for everyone else.
  std::optional<plist::Dict> state = manager.process_request(plist::Dict{{"command", "getState"}}, "admin");
  ASSERT_TRUE(state);
  int fd = 0;
  bool timed_out = false;
  plist::Dict* taken = manager.get_and_lock_context(kInfoModuleName, &fd, &timed_out);
  EXPECT_EQ(taken, &context) << "a paused reading request holds the context lock";
  if (taken) manager.set_and_unlock_context(taken, kInfoModuleName, &fd);
  sleeper.open();
  for (auto& t : listings) t.join();

  // getState ran on a copy and took new meter readings; they were merged
  // back, and the rest of the context is untouched.
  EXPECT_EQ(*context.find_string("kept"), "as it was");
  EXPECT_GT(context.size(), 1u);
  std::optional<plist::Dict> stored = manager.take_dirty_context();
  ASSERT_TRUE(stored);
  EXPECT_FALSE(stored->contains("contextDirty"));
  EXPECT_EQ(*stored, context);
  EXPECT_FALSE(manager.take_dirty_context()) << "nothing changed since the last take";
}

TEST(ModuleManagerTest, CommandsGoToRegisteredModules) {
  plist::Dict context;
  HostModuleManager manager(&context);
  manager.add_module(std::make_unique<EchoModule>("hubwarden_web"));
  manager.add_module(std::make_unique<EchoModule>("hubwarden_dns"));
  manager.add_module(std::make_unique<EchoModule>("hubwarden_web"));  // a duplicate is ignored
  manager.add_module(std::make_unique<EchoModule>(kInfoModuleName));  // so is the module itself
  manager.add_module(nullptr);
  EXPECT_EQ(manager.module_names(), (std::vector<std::string>{kInfoModuleName, "hubwarden_web", "hubwarden_dns"}));

  std::optional<plist::Dict> reply = manager.do_command(plist::Dict{{"command", "getState"}}, "hubwarden_dns", "admin");
  ASSERT_TRUE(reply);
  EXPECT_EQ(*reply, (plist::Dict{{"module", "hubwarden_dns"}, {"user", "admin"}, {"command", "getState"}}));
  EXPECT_FALSE(manager.do_command(plist::Dict{{"command", "getState"}}, "hubwarden_mail", "admin"));
}

TEST(RequesterTest, UserIsPerThreadAndNested) {
  HostRequester requester("daemon");
  EXPECT_EQ(requester.user_for(nullptr), "daemon");
  {
    ScopedUser outer("admin");
    EXPECT_EQ(requester.user_for(nullptr), "admin");
    std::string seen_elsewhere;
    std::thread([&] { seen_elsewhere = requester.user_for(nullptr); }).join();
    EXPECT_EQ(seen_elsewhere, "daemon");
    {
      ScopedUser inner(std::string("monitor"));  // a temporary: the scope keeps its own copy
      EXPECT_EQ(requester.user_for(nullptr), "monitor");
    }
    EXPECT_EQ(requester.user_for(nullptr), "admin");
  }
  EXPECT_EQ(requester.user_for(nullptr), "daemon");
  EXPECT_FALSE(running_user_name().empty());
}

TEST(BackgroundQueueTest, WorkRunsAsTheUserWhoQueuedIt) {
  HostRequester requester("daemon");
  ThreadBackgroundQueue queue(1);
  std::mutex mu;
  std::vector<std::string> seen;
  auto record = [&] {
    std::lock_guard<std::mutex> lock(mu);
    seen.push_back(requester.user_for(nullptr));
  };
  {
    ScopedUser as("monitor");
    queue.dispatch(record);
    // Work queued by work keeps the original requester.
    queue.dispatch([&] { queue.dispatch(record); });
  }
  queue.dispatch(record);
  queue.wait_until_idle();
  std::sort(seen.begin(), seen.end());
  EXPECT_EQ(seen, (std::vector<std::string>{"daemon", "monitor", "monitor"}));
}

TEST(BackgroundQueueTest, WaitCoversWorkQueuedByWork) {
  ThreadBackgroundQueue queue(2);
  std::atomic<int> ran{0};
  for (int i = 0; i < 8; ++i)
    queue.dispatch([&] {
      std::this_thread::sleep_for(1ms);
      ++ran;
      queue.dispatch([&] { ++ran; });
    });
  queue.dispatch([] { throw std::runtime_error("escapes the work"); });
  queue.dispatch(nullptr);
  queue.wait_until_idle();
  EXPECT_EQ(ran, 16);
  queue.wait_until_idle();  // idle already: returns at once
}

}  // namespace
}  // namespace hubwardend
