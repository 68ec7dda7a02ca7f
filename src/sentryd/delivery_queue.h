// Keeps mail delivery off the intake loop: a relay that hangs or refuses
// holds up only the one delivery thread, never the reading of events.
//
// The queue is bounded; when it is full a new mail is dropped with a log
// line rather than let memory grow behind a dead relay. Each failure is
// logged once and not retried. enqueue() is safe from any thread.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

#include "sentryd/log.h"
#include "sentryd/transport.h"

namespace sentryd {

class DeliveryQueue {
 public:
  // Starts the delivery thread.
  DeliveryQueue(std::unique_ptr<Transport> transport, size_t capacity, LogFn log);
  DeliveryQueue(const DeliveryQueue&) = delete;
  DeliveryQueue& operator=(const DeliveryQueue&) = delete;
  // Same as shutdown(0 ms).
  ~DeliveryQueue();

  // Queues mail for delivery. False, with a log line, when the queue is full
  // or shut down.
  bool enqueue(OutgoingMail mail);

  // Stops taking mail, lets the delivery thread work through what is queued
  // for up to drain, then cancels the delivery in progress, drops the rest
  // (logged) and joins the thread. Later calls do nothing.
  void shutdown(std::chrono::milliseconds drain);

  size_t sent() const;
  size_t failed() const;

 private:
  void run();

  std::unique_ptr<Transport> transport_;
  const size_t capacity_;
  LogFn log_;
  mutable std::mutex mu_;
  std::condition_variable wake_;  // for the delivery thread
  std::condition_variable idle_;  // for shutdown: the queue ran empty
  std::deque<OutgoingMail> queue_;
  bool busy_ = false;
  bool closing_ = false;
  std::atomic<bool> cancel_{false};
  size_t sent_ = 0;
  size_t failed_ = 0;
  std::thread thread_;
};

}  // namespace sentryd
