// A fixed set of threads for name lookups. Resolver calls can hang for
// many seconds (an unreachable DNS server), so they never run on a
// request's thread under a lock, and never on threads made per lookup:
// a hanging resolver then holds at most this pool's threads, while further
// lookups wait in a bounded queue and are dropped once their deadline has
// passed before a thread was free for them.
//
// Safe from several threads. Destroying the pool drops queued lookups and
// does not wait for running ones: their threads finish on their own,
// keeping only what the lookup itself holds alive.
#pragma once

#include <chrono>
#include <functional>
#include <memory>

namespace hubwardend {

class ResolverPool {
 public:
  using Clock = std::chrono::steady_clock;

  explicit ResolverPool(size_t threads = 4, size_t max_queued = 64);
  ~ResolverPool();
  ResolverPool(const ResolverPool&) = delete;
  ResolverPool& operator=(const ResolverPool&) = delete;

  // Queues lookup to run on a pool thread, unless it cannot start before
  // deadline, in which case it never runs. Returns false when the queue is
  // full or the pool is stopping (lookup is then dropped at once).
  bool submit(std::function<void()> lookup, Clock::time_point deadline);

  // Lookups waiting for a thread, for tests and metrics.
  size_t queued() const;

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace hubwardend
