// The connection to the file server's control service, and who is asking.
//
// A FilerPort is one connection to the control socket; each remote call is
// one request and one reply on it. It is move-only and false when nothing
// listens (the control port "0"). Use one port from one thread at a time;
// separate threads take separate ports.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>

#include "platform/filer_wire.h"
#include "platform/unique_fd.h"

namespace hubwarden {

class FilerPort {
 public:
  FilerPort() = default;
  // Takes a connected socket; limit bounds the send and the receive of each
  // call separately.
  explicit FilerPort(platform::UniqueFd fd, std::chrono::milliseconds limit = platform::kFilerTimeLimit)
      : fd_(std::move(fd)), limit_(limit) {}

  explicit operator bool() const { return fd_.valid(); }

  // Sends request and waits for its reply (id = request id + 100) into
  // *reply. 0, kFilerServerUnreachable when there is no connection or the
  // server closed it, or a kFilerTransport* code. A reply of the wrong id
  // is kFilerTransportBadReply.
  int call(const platform::FilerMessage& request, platform::FilerMessage* reply) const;

 private:
  platform::UniqueFd fd_;
  std::chrono::milliseconds limit_ = platform::kFilerTimeLimit;
};

// Connects to the control socket (kFilerSocket under the root). A false
// port when the server does not listen.
FilerPort GetFilerServerPort();

// The effective uid the root checks look at: the process's own, unless a
// test stands in another (nullopt gives the real one back).
uid_t filer_caller_uid();
void set_filer_caller_uid_for_testing(std::optional<uid_t> uid);

// Logs the refusal of operation to a caller that is not root, in the words
// the file server's clients have always used.
void log_filer_not_root(const char* operation);

}  // namespace hubwarden
