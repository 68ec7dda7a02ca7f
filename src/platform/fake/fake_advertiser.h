// An advertiser for tests: publishing and withdrawing only append events to
// an in-memory journal, in the order they happen, so a test can check what
// would have reached the network and when. A test can make the next
// publications fail, which calls their failure handler at once. Safe from
// any thread; handles may outlive the advertiser.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/dns_sd.h"

namespace platform {

class FakeAdvertiser : public Advertiser {
 public:
  struct Event {
    enum class Kind { Publish, Withdraw };
    Kind kind;
    uint64_t record;  // numbers records 1, 2, ... in publishing order
    std::string type;
    uint16_t port = 0;
    std::optional<TxtRecord> txt;
  };

  FakeAdvertiser();
  ~FakeAdvertiser() override;

  std::unique_ptr<PublishedRecord> publish(const std::string& type, uint16_t port, const std::optional<TxtRecord>& txt,
                                           FailureHandler did_not_publish) override;

  std::vector<Event> events() const;
  void clear_events();
  // How many times publish was called, and how many records were withdrawn.
  uint64_t publish_calls() const;
  uint64_t withdraw_calls() const;
  // The records published and not withdrawn, oldest first.
  std::vector<Event> live() const;
  // publish reports description through the failure handler from now on;
  // nullopt stops that.
  void fail_publications(std::optional<std::string> description);

 private:
  struct Journal;
  class Record;
  std::shared_ptr<Journal> journal_;
};

}  // namespace platform
