// Configuration-store names from fields set by a test, and sessions that
// write them back on commit.
#include "platform/fake/fake_sysconfig.h"

namespace platform {

class FakeSystemConfiguration::Session : public PreferencesSession {
 public:
  explicit Session(FakeSystemConfiguration* owner) : owner_(owner) {}
  ~Session() override { unlock(); }

  bool lock() override {
    if (!step("lock", Step::kLock)) return false;
    locked_ = true;
    return true;
  }
  bool set_computer_name(const std::string& name) override {
    return stage(staged_computer_, "set_computer_name " + name, name);
  }
  bool set_local_host_name(const std::string& name) override {
    return stage(staged_local_, "set_local_host_name " + name, name);
  }
  bool set_host_name(const std::string& name) override { return stage(staged_host_, "set_host_name " + name, name); }
  bool commit() override {
    if (!step("commit", Step::kCommit)) return false;
    std::lock_guard lock(owner_->mutex_);
    if (staged_computer_) owner_->computer = staged_computer_;
    if (staged_local_) owner_->local_host = staged_local_;
    if (staged_host_) owner_->host = staged_host_;
    return true;
  }
  bool apply() override { return step("apply", Step::kApply); }
  void unlock() override {
    if (!locked_) return;
    locked_ = false;
    record("unlock");
  }

 private:
  void record(const std::string& call) {
    std::lock_guard lock(owner_->mutex_);
    owner_->calls_.push_back(call);
  }
  bool step(const std::string& call, Step which) {
    std::lock_guard lock(owner_->mutex_);
    owner_->calls_.push_back(call);
    return owner_->fail_at != which;
  }
  bool stage(std::optional<std::string>& slot, const std::string& call, const std::string& name) {
    if (!step(call, Step::kSet)) return false;
    slot = name;
    return true;
  }

  FakeSystemConfiguration* owner_;
  bool locked_ = false;
  std::optional<std::string> staged_computer_, staged_local_, staged_host_;
};

bool FakeSystemConfiguration::open(const std::string&) { return reachable; }

std::optional<std::string> FakeSystemConfiguration::computer_name() {
  std::lock_guard lock(mutex_);
  return computer;
}

std::optional<std::string> FakeSystemConfiguration::local_host_name() {
  std::lock_guard lock(mutex_);
  return local_host;
}

std::unique_ptr<PreferencesSession> FakeSystemConfiguration::open_preferences(const std::string& client_name) {
  std::lock_guard lock(mutex_);
  calls_.push_back("open " + client_name);
  if (!preferences_available) return nullptr;
  return std::make_unique<Session>(this);
}

std::vector<std::string> FakeSystemConfiguration::calls() const {
  std::lock_guard lock(mutex_);
  return calls_;
}

}  // namespace platform
