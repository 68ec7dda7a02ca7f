#include "hubwardend/serve/worker_pool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <stdexcept>

#include "hubwardend/serve/credential_cache.h"

namespace hubwardend::serve {
namespace {

using namespace std::chrono_literals;

TEST(WorkerPoolTest, RefusesBeyondItsQueueFinishesWhatItTookAndSurvivesThrowingWork) {
  std::atomic<int> done{0};
  std::promise<void> release;
  std::shared_future<void> gate = release.get_future().share();
  {
    WorkerPool pool("test", 1, 2);
    ASSERT_TRUE(pool.submit([&] {
      gate.wait();
      ++done;
    }));
    // The one thread is held; two more fit in the queue, the fourth does not.
    while (pool.busy() != 1) std::this_thread::yield();
    EXPECT_TRUE(pool.submit([&] { throw std::runtime_error("boom"); }));
    EXPECT_TRUE(pool.submit([&] { ++done; }));
    EXPECT_FALSE(pool.submit([&] { ++done; }));
    // A deadline that passes while work is held reports it, and the pool
    // takes nothing more from then on.
    EXPECT_FALSE(pool.close_and_wait(std::chrono::steady_clock::now() + 20ms));
    EXPECT_FALSE(pool.submit([&] { ++done; }));
    release.set_value();
    EXPECT_TRUE(pool.close_and_wait(std::chrono::steady_clock::now() + 10s));
  }
  EXPECT_EQ(done.load(), 2);
}

TEST(CredentialCacheTest, RemembersExactPairsForItsLifetimeOnlyAndEvictsTheOldest) {
  CredentialCache cache(std::chrono::seconds(60), 2);
  auto t0 = CredentialCache::Clock::now();
  cache.remember("ann", "secret", t0);
  EXPECT_TRUE(cache.accepted_recently("ann", "secret", t0 + 59s));
  EXPECT_FALSE(cache.accepted_recently("ann", "secreT", t0));
  // Moving the boundary between name and password gives another pair.
  EXPECT_FALSE(cache.accepted_recently("anns", "ecret", t0));
  EXPECT_FALSE(cache.accepted_recently("ann", "secret", t0 + 60s));

  cache.remember("a", "1", t0);
  cache.remember("b", "2", t0 + 1s);
  cache.remember("c", "3", t0 + 2s);  // full: "a" goes
  EXPECT_FALSE(cache.accepted_recently("a", "1", t0 + 3s));
  EXPECT_TRUE(cache.accepted_recently("b", "2", t0 + 3s));
  EXPECT_TRUE(cache.accepted_recently("c", "3", t0 + 3s));
  cache.clear();
  EXPECT_FALSE(cache.accepted_recently("c", "3", t0 + 3s));
}

}  // namespace
}  // namespace hubwardend::serve
