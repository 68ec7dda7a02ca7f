// In-memory advertiser journal.
#include "platform/fake/fake_advertiser.h"

#include <algorithm>

namespace platform {

struct FakeAdvertiser::Journal {
  mutable std::mutex mu;
  std::vector<Event> events;           // guarded by mu
  std::vector<Event> live;             // guarded by mu
  uint64_t next_record = 1;            // guarded by mu
  uint64_t publishes = 0;              // guarded by mu
  uint64_t withdrawals = 0;            // guarded by mu
  std::optional<std::string> failure;  // guarded by mu
};

class FakeAdvertiser::Record : public PublishedRecord {
 public:
  Record(std::shared_ptr<Journal> journal, uint64_t id) : journal_(std::move(journal)), id_(id) {}
  ~Record() override {
    std::lock_guard<std::mutex> lock(journal_->mu);
    auto it =
        std::find_if(journal_->live.begin(), journal_->live.end(), [&](const Event& e) { return e.record == id_; });
    if (it == journal_->live.end()) return;
    Event withdrawn = *it;
    withdrawn.kind = Event::Kind::Withdraw;
    journal_->live.erase(it);
    journal_->events.push_back(std::move(withdrawn));
    ++journal_->withdrawals;
  }

 private:
  const std::shared_ptr<Journal> journal_;
  const uint64_t id_;
};

FakeAdvertiser::FakeAdvertiser() : journal_(std::make_shared<Journal>()) {}
FakeAdvertiser::~FakeAdvertiser() = default;

std::unique_ptr<PublishedRecord> FakeAdvertiser::publish(const std::string& type, uint16_t port,
                                                         const std::optional<TxtRecord>& txt,
                                                         FailureHandler did_not_publish) {
  std::optional<std::string> failure;
  uint64_t id;
  {
    std::lock_guard<std::mutex> lock(journal_->mu);
    ++journal_->publishes;
    id = journal_->next_record++;
    failure = journal_->failure;
    if (!failure) {
      Event e{Event::Kind::Publish, id, type, port, txt};
      journal_->live.push_back(e);
      journal_->events.push_back(std::move(e));
    }
  }
  if (failure && did_not_publish) did_not_publish(*failure);
  return std::make_unique<Record>(journal_, id);
}

std::vector<FakeAdvertiser::Event> FakeAdvertiser::events() const {
  std::lock_guard<std::mutex> lock(journal_->mu);
  return journal_->events;
}

void FakeAdvertiser::clear_events() {
  std::lock_guard<std::mutex> lock(journal_->mu);
  journal_->events.clear();
}

uint64_t FakeAdvertiser::publish_calls() const {
  std::lock_guard<std::mutex> lock(journal_->mu);
  return journal_->publishes;
}

uint64_t FakeAdvertiser::withdraw_calls() const {
  std::lock_guard<std::mutex> lock(journal_->mu);
  return journal_->withdrawals;
}

std::vector<FakeAdvertiser::Event> FakeAdvertiser::live() const {
  std::lock_guard<std::mutex> lock(journal_->mu);
  return journal_->live;
}

void FakeAdvertiser::fail_publications(std::optional<std::string> description) {
  std::lock_guard<std::mutex> lock(journal_->mu);
  journal_->failure = std::move(description);
}

}  // namespace platform
