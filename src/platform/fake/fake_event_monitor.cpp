// Recorded event ports.
#include "platform/fake/fake_event_monitor.h"

namespace platform {
namespace {

class FakeEventPort : public EventPort {
 public:
  FakeEventPort(FakeEventMonitor* monitor, int number) : monitor_(monitor), number_(number) {}
  ~FakeEventPort() override { ++monitor_->closes; }

  bool post(const std::string& event_type, const plist::Dict& event) override {
    if (monitor_->fail_post) return false;
    monitor_->posts.push_back({number_, event_type, event});
    return true;
  }

 private:
  FakeEventMonitor* monitor_;
  int number_;
};

}  // namespace

std::unique_ptr<EventPort> FakeEventMonitor::open_port() {
  ++open_attempts;
  if (fail_open) return nullptr;
  return std::make_unique<FakeEventPort>(this, ++opens);
}

}  // namespace platform
