// Notifications: the in-process centre through which parts of the daemon
// tell each other of events ("setState", a network change), and the
// distributed centre that tells the rest of the system (other programs,
// every user's session).
//
// Both are safe from any thread. An in-process post calls every observer
// of the name on the posting thread, before post returns.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "plist/value.h"

namespace platform {

struct Notification {
  std::string name;
  std::optional<std::string> object;
  plist::Dict user_info;
};

class NotificationCenter {
 public:
  using ObserverId = uint64_t;  // 0 is never valid
  using Observer = std::function<void(const Notification&)>;

  NotificationCenter() = default;
  NotificationCenter(const NotificationCenter&) = delete;
  NotificationCenter& operator=(const NotificationCenter&) = delete;

  // Calls observer for every later post of name.
  ObserverId add_observer(const std::string& name, Observer observer);
  // Stops the observer; a call already running finishes. Unknown ids are
  // ignored.
  void remove_observer(ObserverId id);
  // Calls the observers of the notification's name, in the order they were
  // added. An observer may add or remove observers; those changes apply
  // from the next post.
  void post(const Notification& notification);

 private:
  struct Entry {
    ObserverId id;
    std::string name;
    std::shared_ptr<Observer> observer;
  };
  std::mutex mutex_;
  ObserverId next_id_ = 1;
  std::vector<Entry> entries_;
};

// The process-wide in-process centre, made on first use and never
// destroyed.
NotificationCenter& default_center();

class DistributedNotifications {
 public:
  virtual ~DistributedNotifications() = default;
  // Tells every interested program and user session, now, with no object
  // and no user info. Failure to reach anyone is not an error the caller
  // can act on; implementations log it.
  virtual void post(const std::string& name) = 0;
};

}  // namespace platform
