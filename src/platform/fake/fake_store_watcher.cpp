// Store sessions whose changes a test makes by hand.
#include "platform/fake/fake_store_watcher.h"

#include <algorithm>

#include "platform/run_loop.h"

namespace platform {

struct FakeStoreWatcher::State {
  mutable std::mutex mutex;
  StoreWatchFailure fail_at = StoreWatchFailure::kNone;
  std::function<void(std::chrono::milliseconds)> on_wait;
  std::vector<Opened> opened;
  std::vector<std::chrono::milliseconds> waits;
  std::vector<Session*> live;
};

class FakeStoreWatcher::Session : public StoreSession {
 public:
  Session(std::shared_ptr<FakeStoreWatcher::State> state, std::vector<StoreKey> keys)
      : state_(std::move(state)), keys_(std::move(keys)) {
    std::lock_guard lock(state_->mutex);
    state_->live.push_back(this);
  }

  ~Session() override {
    std::lock_guard lock(state_->mutex);
    std::erase(state_->live, this);
  }

  int run_for(std::chrono::milliseconds timeout, const std::function<void()>& changed) override {
    std::function<void(std::chrono::milliseconds)> hook;
    {
      std::lock_guard lock(state_->mutex);
      state_->waits.push_back(timeout);
      hook = state_->on_wait;
    }
    if (hook) hook(timeout);
    if (keys_.empty()) return kRunFinished;
    int pending;
    {
      std::lock_guard lock(state_->mutex);
      pending = pending_;
      pending_ = 0;
    }
    for (int i = 0; i < pending; ++i) changed();
    return kRunTimedOut;
  }

  bool schedule(RunLoop& loop, std::function<void()> changed) override {
    std::lock_guard lock(state_->mutex);
    if (loop_ != nullptr || keys_.empty()) return false;
    loop_ = &loop;
    scheduled_ = std::make_shared<std::function<void()>>(std::move(changed));
    return true;
  }

  // Called with the state's lock held.
  void deliver(StoreKey key) {
    if (std::find(keys_.begin(), keys_.end(), key) == keys_.end()) return;
    if (loop_ == nullptr) {
      ++pending_;
      return;
    }
    // The callback is shared so that a post still queued when the session
    // goes away does not call into freed memory.
    std::weak_ptr<std::function<void()>> weak = scheduled_;
    loop_->post([weak] {
      if (auto changed = weak.lock()) (*changed)();
    });
  }

 private:
  std::shared_ptr<FakeStoreWatcher::State> state_;
  const std::vector<StoreKey> keys_;
  int pending_ = 0;
  RunLoop* loop_ = nullptr;
  std::shared_ptr<std::function<void()>> scheduled_;
};

FakeStoreWatcher::FakeStoreWatcher() : state_(std::make_shared<State>()) {}
FakeStoreWatcher::~FakeStoreWatcher() = default;

std::unique_ptr<StoreSession> FakeStoreWatcher::open_session(const std::string& client_name,
                                                             const std::vector<StoreKey>& keys,
                                                             StoreWatchFailure* failure) {
  StoreWatchFailure step;
  {
    std::lock_guard lock(state_->mutex);
    state_->opened.push_back({client_name, keys});
    step = state_->fail_at;
  }
  if (failure != nullptr) *failure = step;
  if (step != StoreWatchFailure::kNone) return nullptr;
  return std::make_unique<Session>(state_, keys);
}

void FakeStoreWatcher::fail_at(StoreWatchFailure step) {
  std::lock_guard lock(state_->mutex);
  state_->fail_at = step;
}

void FakeStoreWatcher::change(StoreKey key) {
  std::lock_guard lock(state_->mutex);
  for (Session* session : state_->live) session->deliver(key);
}

void FakeStoreWatcher::on_wait(std::function<void(std::chrono::milliseconds)> hook) {
  std::lock_guard lock(state_->mutex);
  state_->on_wait = std::move(hook);
}

std::vector<FakeStoreWatcher::Opened> FakeStoreWatcher::opened() const {
  std::lock_guard lock(state_->mutex);
  return state_->opened;
}

int FakeStoreWatcher::live_sessions() const {
  std::lock_guard lock(state_->mutex);
  return static_cast<int>(state_->live.size());
}

std::vector<std::chrono::milliseconds> FakeStoreWatcher::waits() const {
  std::lock_guard lock(state_->mutex);
  return state_->waits;
}

}  // namespace platform
