#include "hubwardend/serve/idle_schedule.h"

#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace hubwardend::serve {
namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

// Each piece of work on a thread of its own, so that passes could overlap if
// the schedule let them. The threads are detached: a test stops the schedule,
// waiting for the pass, before its locals go.
void thread_per_work(std::function<void()> work) { std::thread(std::move(work)).detach(); }

struct PassRecord {
  std::string pass;
  Clock::time_point began;
  Clock::time_point ended;
};

std::unique_ptr<EventLoop> make_loop() {
  std::string error;
  std::unique_ptr<EventLoop> loop = EventLoop::create(&error);
  EXPECT_NE(loop, nullptr) << error;
  return loop;
}

TEST(IdleScheduleTest, PassesCountUpOneAtATimeAPeriodAfterTheLastEnded) {
  std::unique_ptr<EventLoop> loop = make_loop();
  constexpr milliseconds kPeriod(15);
  std::mutex mu;
  std::vector<PassRecord> passes;
  std::atomic<int> in_flight = 0;
  std::atomic<int> most_in_flight = 0;
  IdleSchedule schedule(
      *loop, kPeriod,
      [&](const std::string& pass) {
        int now = ++in_flight;
        most_in_flight = std::max(most_in_flight.load(), now);
        PassRecord record{pass, Clock::now(), {}};
        // Pass 1 is slower than the period: it must push pass 2 back.
        std::this_thread::sleep_for(pass == "1" ? milliseconds(40) : milliseconds(2));
        record.ended = Clock::now();
        --in_flight;
        std::lock_guard<std::mutex> lock(mu);
        passes.push_back(record);
        if (pass == "5") loop->exit(0);
      },
      thread_per_work);
  schedule.start();
  schedule.start();  // a second start changes nothing
  EXPECT_EQ(loop->run(), 0);
  EXPECT_TRUE(schedule.stop(milliseconds(1000)));

  ASSERT_EQ(passes.size(), 6u);
  for (size_t i = 0; i < passes.size(); ++i) {
    EXPECT_EQ(passes[i].pass, std::to_string(i));
    if (i > 0) {
      EXPECT_GE(passes[i].began - passes[i - 1].ended, kPeriod) << "pass " << i;
    }
  }
  EXPECT_EQ(most_in_flight, 1);
  IdleSchedule::Stats stats = schedule.stats();
  EXPECT_EQ(stats.passes_run, 6u);
  EXPECT_FALSE(stats.running);
  EXPECT_GE(stats.total_duration, milliseconds(40));
  EXPECT_GE(stats.last_duration, milliseconds(2));

  EXPECT_EQ(IdleSchedule::next_pass_number(0), 1);
  EXPECT_EQ(IdleSchedule::next_pass_number(INT_MAX - 1), INT_MAX);
  EXPECT_EQ(IdleSchedule::next_pass_number(INT_MAX), 2);
}

TEST(IdleScheduleTest, StopWaitsForARunningPassOnlyUntilItsDeadline) {
  std::unique_ptr<EventLoop> loop = make_loop();
  std::atomic<int> started = 0;
  IdleSchedule schedule(
      *loop, milliseconds(5),
      [&](const std::string&) {
        ++started;
        std::this_thread::sleep_for(milliseconds(150));
      },
      thread_per_work);
  schedule.start();
  bool short_wait = true;
  bool long_wait = false;
  bool running_at_first_stop = false;
  loop->add_timer(milliseconds(30), [&] {
    short_wait = schedule.stop(milliseconds(10));
    running_at_first_stop = schedule.stats().running;
    long_wait = schedule.stop(milliseconds(2000));
    // Well past the period: nothing may start after stop.
    loop->add_timer(milliseconds(60), [&] { loop->exit(0); });
  });
  loop->run();
  EXPECT_FALSE(short_wait);
  EXPECT_TRUE(running_at_first_stop);
  EXPECT_TRUE(long_wait);
  EXPECT_EQ(started, 1);
  EXPECT_EQ(schedule.stats().passes_run, 1u);
}

TEST(IdleScheduleTest, DroppedWorkKeepsItsNumberAndANewPeriodAppliesToTheNextWait) {
  std::unique_ptr<EventLoop> loop = make_loop();
  std::vector<std::string> passes;
  IdleSchedule* self = nullptr;
  int handed = 0;
  IdleSchedule schedule(
      *loop, milliseconds(60000),
      [&](const std::string& pass) {
        passes.push_back(pass);
        // Without the new period the test would wait a minute for pass 1.
        if (pass == "0") self->set_period(milliseconds(5));
        if (pass == "3") loop->exit(0);
      },
      // Every second piece of work is dropped, as a closing pool would; the
      // rest run inline on the loop thread.
      [&](std::function<void()> work) {
        if (++handed % 2 == 1) work();
      });
  self = &schedule;
  schedule.start();
  loop->add_timer(milliseconds(5000), [&] { loop->exit(1); });
  EXPECT_EQ(loop->run(), 0);
  EXPECT_EQ(passes, (std::vector<std::string>{"0", "1", "2", "3"}));
  EXPECT_EQ(schedule.stats().passes_run, 4u);
}

}  // namespace
}  // namespace hubwardend::serve
