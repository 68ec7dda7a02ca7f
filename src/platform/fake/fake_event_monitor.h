// An event monitor for tests: keeps every open, post and close in memory,
// and can be told to refuse opens or posts, so the module's event traffic
// is checked without a socket. Not thread-safe. REQUIRES: the monitor
// outlives the ports it hands out.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/event_port.h"
#include "plist/value.h"

namespace platform {

class FakeEventMonitor : public EventMonitor {
 public:
  struct Post {
    int port;  // which open it went through, counting from 1
    std::string event_type;
    plist::Dict event;
  };

  bool fail_open = false;  // open_port() returns nullptr
  bool fail_post = false;  // post() records nothing and returns false

  int open_attempts = 0;
  int opens = 0;  // successful ones
  int closes = 0;
  std::vector<Post> posts;

  std::unique_ptr<EventPort> open_port() override;
};

}  // namespace platform
