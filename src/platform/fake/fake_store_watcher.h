// A store watcher for tests. Changes are made by the test (change()), not
// seen in files: a session scheduled on a run loop gets each change posted
// to that loop; any other session collects it and delivers it inside its
// next run_for, which returns at once instead of waiting out its timeout so
// that tests never sleep. A hook called at the start of every run_for lets
// a test make a change "while the caller waits".
//
// Safe from any thread. Sessions may outlive the watcher's test scope only
// as long as the watcher itself lives.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/sysconfig.h"

namespace platform {

class FakeStoreWatcher : public StoreWatcher {
 public:
  struct Opened {
    std::string client_name;
    std::vector<StoreKey> keys;
  };

  FakeStoreWatcher();
  ~FakeStoreWatcher() override;

  std::unique_ptr<StoreSession> open_session(const std::string& client_name, const std::vector<StoreKey>& keys,
                                             StoreWatchFailure* failure) override;

  // Makes every later open_session fail at this step (kNone: succeed).
  void fail_at(StoreWatchFailure step);
  // Reports a change of key to every live session that watches it.
  void change(StoreKey key);
  // Called (without the fake's lock) at the start of every run_for, with
  // the timeout asked for; it may call change().
  void on_wait(std::function<void(std::chrono::milliseconds)> hook);

  // Every session opened so far, in order (failed attempts included).
  std::vector<Opened> opened() const;
  // Sessions not yet destroyed.
  int live_sessions() const;
  // The timeouts of every run_for so far, in order.
  std::vector<std::chrono::milliseconds> waits() const;

  struct State;  // shared with the sessions
  class Session;

 private:
  std::shared_ptr<State> state_;
};

}  // namespace platform
