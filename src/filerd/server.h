// The control socket: a Unix stream socket, mode 0600, that only root (or
// the daemon's own user) may use; peers are checked with SO_PEERCRED and
// others are closed at once.
//
// Each connection has its own thread, at most kMaxConnections at a time
// (later ones are closed at once, which the client sees as a server that
// went away). A connection carries one request and one reply at a time,
// each within the exchange's 10-second limit; it may stay idle between
// requests for as long as it likes. A frame that the codec refuses (bad
// magic, unknown id, wrong shape, lengths that lie, too large), a peer that
// stops mid-frame or disappears, ends that connection and nothing else:
// after a bad frame the stream cannot be trusted to be in step, so there is
// no reply to give.
//
// Thread-safe: stop() may be called from any thread or a signal handler.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>

#include "filerd/config.h"
#include "filerd/controller.h"
#include "platform/unique_fd.h"

namespace filerd {

class Server {
 public:
  static constexpr size_t kMaxConnections = 32;

  Server(Controller& controller, LogFn log);
  ~Server();  // removes the socket it made

  // Makes the listening socket at path (creating its folder when missing).
  // A socket left there by a daemon that is gone is replaced; false, with
  // *error set, when another daemon answers there or something that is not
  // a socket is in the way.
  bool listen(const std::string& path, std::string* error);
  // Serves until stop(); returns when every connection has ended.
  void run();
  // Async-signal-safe.
  void stop();

 private:
  void serve_connection(platform::UniqueFd fd);

  Controller& controller_;
  LogFn log_;
  std::string path_;
  platform::UniqueFd listener_;
  platform::UniqueFd stop_read_, stop_write_;
  std::mutex mutex_;
  std::condition_variable idle_;
  size_t connections_ = 0;
};

}  // namespace filerd
