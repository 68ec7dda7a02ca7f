#include "hubwardend/serve/event_loop.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace hubwardend::serve {
namespace {

using std::chrono::milliseconds;

std::unique_ptr<EventLoop> make_loop() {
  std::string error;
  std::unique_ptr<EventLoop> loop = EventLoop::create(&error);
  EXPECT_NE(loop, nullptr) << error;
  return loop;
}

// Runs body in a forked child and returns its exit status. Signal masks,
// dispositions and the environment are per process, so tests that change
// them do it where no other test and no stray thread can see it. body
// returns 0 for success; it explains any failure on stderr.
int in_child(const std::function<int()>& body) {
  std::fflush(nullptr);
  pid_t pid = ::fork();
  if (pid == 0) ::_exit(body());
  int status = 0;
  ::waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int fail(const char* why) {
  std::fprintf(stderr, "child: %s\n", why);
  return 1;
}

TEST(EventLoopTest, TimersFireInDeadlineOrderOnTheLoopAndCancelledOnesNever) {
  std::unique_ptr<EventLoop> loop = make_loop();
  std::vector<int> fired;
  std::atomic<bool> off_thread = false;
  // The loop stops once the last timer of each thread has fired.
  auto record = [&](int n) {
    return [&, n] {
      if (!loop->in_loop_thread()) off_thread = true;
      fired.push_back(n);
      if (std::count(fired.begin(), fired.end(), 40) + std::count(fired.begin(), fired.end(), 1000) == 2) {
        loop->exit(7);
      }
    };
  };
  loop->add_timer(milliseconds(40), record(40));
  loop->add_timer(milliseconds(10), record(10));
  loop->add_timer(milliseconds(11), record(11));
  loop->add_timer(milliseconds(-5), record(0));  // a negative delay is due at once
  EventLoop::Id dropped = loop->add_timer(milliseconds(20), record(20));
  loop->cancel(dropped);
  loop->cancel(dropped);    // twice is harmless
  loop->cancel(123456789);  // never issued

  // A timer that cancels a later one from inside its own callback.
  EventLoop::Id later = loop->add_timer(milliseconds(35), record(35));
  loop->add_timer(milliseconds(15), [&] {
    fired.push_back(15);
    loop->cancel(later);
  });
  // Armed and cancelled from another thread while the loop runs. The
  // cancelled timer would be due well before the loop stops.
  std::thread other([&] {
    EventLoop::Id gone = loop->add_timer(milliseconds(20), record(1001));
    loop->cancel(gone);
    EventLoop::Id id = loop->add_timer(milliseconds(40), record(1000));
    EXPECT_NE(id, 0u);
    EXPECT_FALSE(loop->in_loop_thread());
  });
  loop->add_timer(milliseconds(5000), [&] { loop->exit(1); });

  EXPECT_EQ(loop->run(), 7);
  other.join();
  std::vector<int> from_main;
  std::copy_if(fired.begin(), fired.end(), std::back_inserter(from_main), [](int n) { return n < 1000; });
  EXPECT_EQ(from_main, (std::vector<int>{0, 10, 11, 15, 40}));
  EXPECT_EQ(std::count(fired.begin(), fired.end(), 1000), 1);
  EXPECT_EQ(std::count(fired.begin(), fired.end(), 1001), 0);
  EXPECT_FALSE(off_thread);

  // Stopped for good.
  EXPECT_EQ(loop->add_timer(milliseconds(1), [] {}), 0u);
  EXPECT_FALSE(loop->post([] {}));
}

TEST(EventLoopTest, PostsFromManyThreadsAllRunOnTheLoopBeforeRunReturns) {
  std::unique_ptr<EventLoop> loop = make_loop();
  constexpr int kThreads = 8;
  constexpr int kPerThread = 1000;
  int ran = 0;  // loop thread only: the sanitizer checks that claim
  std::atomic<int> off_thread = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < kPerThread; ++i) {
        bool posted = loop->post([&] {
          if (!loop->in_loop_thread()) ++off_thread;
          if (++ran == kThreads * kPerThread) loop->exit(0);
        });
        EXPECT_TRUE(posted);
      }
    });
  }
  // exit() from another thread while posts are still queued: they run all
  // the same.
  std::thread quitter([&] {
    for (auto& t : threads) t.join();
    loop->exit(3);
  });
  int code = loop->run();
  quitter.join();
  EXPECT_EQ(ran, kThreads * kPerThread);
  EXPECT_EQ(off_thread, 0);
  EXPECT_TRUE(code == 0 || code == 3) << code;
  EXPECT_FALSE(loop->post([] {}));
}

TEST(EventLoopTest, WatchSeesAPipeBecomeReadableUntilCancelled) {
  std::unique_ptr<EventLoop> loop = make_loop();
  int fds[2];
  ASSERT_EQ(::pipe(fds), 0);
  std::string received;
  EventLoop::Id watch = 0;
  watch = loop->watch_fd(fds[0], EPOLLIN, [&](uint32_t events) {
    EXPECT_TRUE(events & EPOLLIN);
    char buf[16];
    ssize_t n = ::read(fds[0], buf, sizeof buf);
    if (n > 0) received.append(buf, n);
    if (received.size() >= 6) {
      loop->cancel(watch);
      // Data written after cancel must not be read by the watch.
      EXPECT_EQ(::write(fds[1], "zz", 2), 2);
      loop->add_timer(milliseconds(30), [&] { loop->exit(0); });
    }
  });
  ASSERT_NE(watch, 0u);
  std::thread writer([&] {
    EXPECT_EQ(::write(fds[1], "abc", 3), 3);
    std::this_thread::sleep_for(milliseconds(10));
    EXPECT_EQ(::write(fds[1], "def", 3), 3);
  });
  // A watch on a closed descriptor cannot be made.
  EXPECT_EQ(loop->watch_fd(-1, EPOLLIN, [](uint32_t) {}), 0u);
  EXPECT_EQ(loop->run(), 0);
  writer.join();
  EXPECT_EQ(received, "abcdef");
  ::close(fds[0]);
  ::close(fds[1]);
}

TEST(EventLoopTest, BlockedSignalsArriveAsCallbacks) {
  int status = in_child([] {
    EventLoop::block_daemon_signals();
    std::string error;
    std::unique_ptr<EventLoop> loop = EventLoop::create(&error);
    if (!loop) return fail(error.c_str());
    if (loop->add_signal_handler(SIGUSR2, [] {})) return fail("handler for a signal that is not blocked");
    int hangups = 0;
    if (!loop->add_signal_handler(SIGHUP, [&] {
          if (++hangups == 2) loop->exit(0);
        }))
      return fail("no SIGHUP handler");
    if (loop->add_signal_handler(SIGHUP, [] {})) return fail("second SIGHUP handler");
    // A peer that goes away must not kill the daemon.
    int fds[2];
    if (::pipe(fds) != 0) return fail("pipe");
    ::close(fds[0]);
    if (::write(fds[1], "x", 1) != -1 || errno != EPIPE) return fail("SIGPIPE not ignored");
    ::kill(::getpid(), SIGHUP);
    loop->add_timer(milliseconds(20), [] { ::kill(::getpid(), SIGHUP); });
    int code = loop->run();
    if (hangups != 2 || code != 0) return fail("SIGHUP not delivered twice");
    return 0;
  });
  EXPECT_EQ(status, 0);
}

// Appends every datagram waiting on fd to messages. A datagram socket
// queues only a few messages, after which the sender blocks, so the test
// reads them as they come, as a service manager would.
void drain(int fd, std::vector<std::string>* messages) {
  char buf[512];
  for (;;) {
    ssize_t n = ::recv(fd, buf, sizeof buf, MSG_DONTWAIT);
    if (n < 0) break;
    messages->emplace_back(buf, n);
  }
}

TEST(EventLoopTest, NotifiesTheServiceManagerAndKeepsTheWatchdogFed) {
  int status = in_child([] {
    char dir[] = "/tmp/hubwarden-notify-XXXXXX";
    if (!::mkdtemp(dir)) return fail("mkdtemp");
    std::string path = std::string(dir) + "/notify";
    int sock = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    if (::bind(sock, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) return fail("bind");

    int result = 0;
    ::unsetenv("NOTIFY_SOCKET");
    if (EventLoop::notify_ready()) result = fail("notified without a socket");

    ::setenv("NOTIFY_SOCKET", path.c_str(), 1);
    ::setenv("WATCHDOG_USEC", "40000", 1);
    ::setenv("WATCHDOG_PID", std::to_string(::getpid()).c_str(), 1);
    std::string error;
    std::unique_ptr<EventLoop> loop = EventLoop::create(&error);
    if (!loop) return fail(error.c_str());
    std::vector<std::string> messages;
    loop->watch_fd(sock, EPOLLIN, [&](uint32_t) { drain(sock, &messages); });
    if (!EventLoop::notify_ready() || !EventLoop::notify_status("two\nlines") || !EventLoop::notify_reloading() ||
        !EventLoop::notify_stopping())
      result = fail("a notification was not sent");
    loop->add_timer(milliseconds(200), [&] { loop->exit(0); });
    loop->run();
    drain(sock, &messages);
    int keepalives = 0;
    std::set<std::string> seen;
    for (const std::string& m : messages) {
      if (m == "WATCHDOG=1") ++keepalives;
      seen.insert(m.substr(0, m.find('\n')));
    }
    if (!seen.contains("READY=1") || !seen.contains("STATUS=two lines") || !seen.contains("RELOADING=1") ||
        !seen.contains("STOPPING=1"))
      result = fail("a notification went missing or was mangled");
    // A 40 ms watchdog over 200 ms: a keep-alive at least every 20 ms or so.
    if (keepalives < 3) result = fail("too few watchdog keep-alives");
    ::close(sock);
    std::filesystem::remove_all(dir);
    return result;
  });
  EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace hubwardend::serve
