// The in-process notification centre.
#include <algorithm>
#include <memory>

#include "platform/notifications.h"

namespace platform {

NotificationCenter::ObserverId NotificationCenter::add_observer(const std::string& name, Observer observer) {
  std::lock_guard<std::mutex> lock(mutex_);
  ObserverId id = next_id_++;
  entries_.push_back(Entry{id, name, std::make_shared<Observer>(std::move(observer))});
  return id;
}

void NotificationCenter::remove_observer(ObserverId id) {
  std::lock_guard<std::mutex> lock(mutex_);
  entries_.erase(std::remove_if(entries_.begin(), entries_.end(), [id](const Entry& e) { return e.id == id; }),
                 entries_.end());
}

void NotificationCenter::post(const Notification& notification) {
  // Observers run without the lock, so they may post or (un)register; the
  // shared pointers keep a removed observer alive until its call ends.
  std::vector<std::shared_ptr<Observer>> targets;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const Entry& e : entries_)
      if (e.name == notification.name) targets.push_back(e.observer);
  }
  for (const auto& observer : targets) (*observer)(notification);
}

NotificationCenter& default_center() {
  static NotificationCenter* center = new NotificationCenter();
  return *center;
}

}  // namespace platform
