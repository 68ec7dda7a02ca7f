// Claiming the path a listening Unix socket is bound to, for the daemons
// that each own one (the host's local entrance, the event monitor, the file
// server's control daemon).
// A socket file left by a process that died is taken over; one a live
// process still answers on, or a path something else occupies, is not.
//
// Header-only so that programs linking only the value library can use it.
// The functions touch only the path given and are safe from any thread.
#pragma once

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>

namespace platform {

enum class SocketPathClaim {
  kFree,        // nothing is at the path now (a stale socket was removed)
  kTooLong,     // empty, or longer than a socket address holds
  kNotASocket,  // another kind of file is in the way; left alone
  kInUse,       // a process accepts connections on it; left alone
};

// Fills *address with path; false when path is empty or does not fit.
inline bool unix_socket_address(const std::string& path, sockaddr_un* address) {
  std::memset(address, 0, sizeof *address);
  address->sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address->sun_path) return false;
  std::memcpy(address->sun_path, path.data(), path.size());
  return true;
}

// Prepares path for bind(2) of a socket of type (SOCK_STREAM, SOCK_DGRAM)
// and fills *address. A socket file nobody answers on is unlinked: a
// connect to it is refused once its owner is gone.
inline SocketPathClaim claim_socket_path(const std::string& path, int type, sockaddr_un* address) {
  if (!unix_socket_address(path, address)) return SocketPathClaim::kTooLong;
  struct stat st;
  if (::lstat(path.c_str(), &st) != 0) return SocketPathClaim::kFree;
  if (!S_ISSOCK(st.st_mode)) return SocketPathClaim::kNotASocket;
  int probe = ::socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
  if (probe >= 0) {
    bool live = ::connect(probe, reinterpret_cast<const sockaddr*>(address), sizeof *address) == 0;
    ::close(probe);
    if (live) return SocketPathClaim::kInUse;
  }
  ::unlink(path.c_str());
  return SocketPathClaim::kFree;
}

}  // namespace platform
