// Binding the event port and reading events from it.
#include "sentryd/event_socket.h"

#include <errno.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "platform/event_port.h"
#include "platform/socket_path.h"
#include "plist/codec.h"

namespace sentryd {

std::optional<plist::Dict> decode_event(std::string_view datagram, DropReason* reason) {
  *reason = DropReason::None;
  if (datagram.size() > platform::kMaxEventBytes) {
    *reason = DropReason::Oversized;
    return std::nullopt;
  }
  plist::Parsed parsed = plist::parse_xml(datagram);
  if (!parsed.ok()) {
    *reason = DropReason::Unparsable;
    return std::nullopt;
  }
  plist::Dict* dict = parsed.value.as_dict();
  if (!dict) {
    *reason = DropReason::NotDictionary;
    return std::nullopt;
  }
  const std::string* type = dict->find_string("event_type");
  if (!type || type->empty()) {
    *reason = DropReason::NoEventType;
    return std::nullopt;
  }
  plist::Dict event;
  for (auto& [key, value] : *dict) {
    if (value.is_string()) event.set(key, std::move(value));
  }
  return event;
}

std::optional<EventSocket> EventSocket::open(const std::string& path, std::string* error) {
  std::error_code ec;
  std::filesystem::path folder = std::filesystem::path(path).parent_path();
  if (!folder.empty()) std::filesystem::create_directories(folder, ec);
  sockaddr_un address;
  switch (platform::claim_socket_path(path, SOCK_DGRAM, &address)) {
    case platform::SocketPathClaim::kFree:
      break;
    case platform::SocketPathClaim::kTooLong:
      *error = "socket path too long: " + path;
      return std::nullopt;
    case platform::SocketPathClaim::kNotASocket:
      *error = path + " exists and is not a socket";
      return std::nullopt;
    case platform::SocketPathClaim::kInUse:
      *error = "another monitor is listening on " + path;
      return std::nullopt;
  }
  int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) {
    *error = std::string("cannot make a socket: ") + std::strerror(errno);
    return std::nullopt;
  }
  // The mode is set through the umask so the socket never exists, even
  // for a moment, with wider permissions.
  mode_t old_mask = ::umask(0117);
  int bound = ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  int bind_errno = errno;
  ::umask(old_mask);
  if (bound != 0) {
    ::close(fd);
    *error = "cannot bind " + path + ": " + std::strerror(bind_errno);
    return std::nullopt;
  }
  // Bursts of events (one per volume per idle pass) should queue rather
  // than be refused while a rule reload runs.
  int size = 1 << 20;
  ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
  return EventSocket(fd, path);
}

EventSocket::EventSocket(EventSocket&& other) noexcept
    : fd_(other.fd_), path_(std::move(other.path_)), buffer_(std::move(other.buffer_)), counts_(other.counts_) {
  other.fd_ = -1;
}

EventSocket::~EventSocket() {
  if (fd_ < 0) return;
  ::close(fd_);
  ::unlink(path_.c_str());
}

bool EventSocket::receive(std::optional<plist::Dict>* event) {
  event->reset();
  buffer_.resize(platform::kMaxEventBytes + 1);
  ssize_t n;
  do {
    // MSG_TRUNC makes the call return the datagram's real length, so a
    // datagram longer than the buffer is seen as oversized rather than
    // read as a cut-off, possibly still parsable, prefix.
    n = ::recv(fd_, buffer_.data(), buffer_.size(), MSG_TRUNC);
  } while (n < 0 && errno == EINTR);
  if (n < 0) return false;
  DropReason reason = DropReason::Oversized;
  if (static_cast<size_t>(n) <= platform::kMaxEventBytes) {
    *event = decode_event(std::string_view(buffer_.data(), static_cast<size_t>(n)), &reason);
  }
  switch (reason) {
    case DropReason::None:
      ++counts_.received;
      break;
    case DropReason::Oversized:
      ++counts_.oversized;
      break;
    case DropReason::Unparsable:
      ++counts_.unparsable;
      break;
    case DropReason::NotDictionary:
      ++counts_.not_dictionary;
      break;
    case DropReason::NoEventType:
      ++counts_.no_event_type;
      break;
  }
  return true;
}

}  // namespace sentryd
