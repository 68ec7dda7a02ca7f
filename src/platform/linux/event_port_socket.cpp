// Connecting to the event monitor's datagram socket and sending events.
#include "platform/linux/event_port_socket.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include "platform/paths.h"
#include "platform/root_fs.h"
#include "platform/unique_fd.h"
#include "plist/codec.h"

namespace platform {
namespace {

class SocketEventPort : public EventPort {
 public:
  explicit SocketEventPort(UniqueFd fd) : fd_(std::move(fd)) {}

  bool post(const std::string& event_type, const plist::Dict& event) override {
    std::string datagram = encode_event(event_type, event);
    // The monitor drops anything longer, so it is not worth sending.
    if (datagram.size() > kMaxEventBytes) return false;
    ssize_t sent;
    do {
      sent = ::send(fd_.get(), datagram.data(), datagram.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    } while (sent < 0 && errno == EINTR);
    return sent == static_cast<ssize_t>(datagram.size());
  }

 private:
  UniqueFd fd_;
};

// A connected datagram socket for the socket at path, or an invalid one.
UniqueFd connect_to(const std::string& path) {
  std::string address = path;
  UniqueFd folder;  // keeps the /proc/self/fd address valid until connect
  std::string root, relative;
  if (confined_to_root(path, &root, &relative)) {
    std::string leaf;
    folder.reset(open_parent_confined(path, /*create_parents=*/false, &leaf));
    if (!folder.valid()) return UniqueFd();
    struct stat st;
    if (::fstatat(folder.get(), leaf.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISSOCK(st.st_mode))
      return UniqueFd();
    address = "/proc/self/fd/" + std::to_string(folder.get()) + "/" + leaf;
  }

  sockaddr_un un{};
  un.sun_family = AF_UNIX;
  if (address.empty() || address.size() >= sizeof(un.sun_path)) return UniqueFd();
  ::memcpy(un.sun_path, address.data(), address.size());

  UniqueFd fd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd.valid()) return UniqueFd();
  int rc;
  do {
    rc = ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&un), sizeof(un));
  } while (rc != 0 && errno == EINTR);
  if (rc != 0) return UniqueFd();
  return fd;
}

class SocketEventMonitor : public EventMonitor {
 public:
  std::unique_ptr<EventPort> open_port() override {
    UniqueFd fd = connect_to(resolve(kEventMonitorSocket));
    if (!fd.valid()) return nullptr;
    return std::make_unique<SocketEventPort>(std::move(fd));
  }
};

}  // namespace

std::string encode_event(const std::string& event_type, const plist::Dict& event) {
  plist::Dict message;
  message.reserve(event.size() + 1);
  message.set("event_type", event_type);
  for (const auto& [key, value] : event)
    if (key != "event_type") message.set(key, value);
  return plist::write_xml(plist::Value(std::move(message)));
}

std::unique_ptr<EventMonitor> make_socket_event_monitor() { return std::make_unique<SocketEventMonitor>(); }

}  // namespace platform
