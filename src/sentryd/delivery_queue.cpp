// One delivery thread working through a bounded queue.
#include "sentryd/delivery_queue.h"

namespace sentryd {

DeliveryQueue::DeliveryQueue(std::unique_ptr<Transport> transport, size_t capacity, LogFn log)
    : transport_(std::move(transport)), capacity_(capacity), log_(std::move(log)) {
  thread_ = std::thread([this] { run(); });
}

DeliveryQueue::~DeliveryQueue() { shutdown(std::chrono::milliseconds(0)); }

bool DeliveryQueue::enqueue(OutgoingMail mail) {
  std::unique_lock lock(mu_);
  if (closing_ || queue_.size() >= capacity_) {
    std::string rule = mail.rule;
    bool closing = closing_;
    lock.unlock();
    log_("mail for " + rule + " dropped: " + (closing ? "shutting down" : "the delivery queue is full"));
    return false;
  }
  queue_.push_back(std::move(mail));
  wake_.notify_one();
  return true;
}

void DeliveryQueue::shutdown(std::chrono::milliseconds drain) {
  std::unique_lock lock(mu_);
  if (!thread_.joinable()) return;
  closing_ = true;
  wake_.notify_one();
  idle_.wait_for(lock, drain, [this] { return queue_.empty() && !busy_; });
  size_t dropped = queue_.size();
  queue_.clear();
  cancel_ = true;
  lock.unlock();
  if (dropped > 0) log_(std::to_string(dropped) + " queued mail(s) dropped at exit");
  thread_.join();
}

size_t DeliveryQueue::sent() const {
  std::lock_guard lock(mu_);
  return sent_;
}

size_t DeliveryQueue::failed() const {
  std::lock_guard lock(mu_);
  return failed_;
}

void DeliveryQueue::run() {
  std::unique_lock lock(mu_);
  while (true) {
    wake_.wait(lock, [this] { return !queue_.empty() || closing_; });
    if (queue_.empty()) {
      idle_.notify_all();
      if (closing_) return;
      continue;
    }
    OutgoingMail mail = std::move(queue_.front());
    queue_.pop_front();
    busy_ = true;
    lock.unlock();
    std::string error = transport_->send(mail, cancel_);
    if (error.empty()) {
      log_("mail for " + mail.rule + " sent to " + std::to_string(mail.to.size()) + " recipient(s)");
    } else {
      log_("mail for " + mail.rule + " not sent: " + error);
    }
    lock.lock();
    busy_ = false;
    (error.empty() ? sent_ : failed_)++;
    if (queue_.empty()) idle_.notify_all();
  }
}

}  // namespace sentryd
