#include "platform/linux/event_port_socket.h"

#include <gtest/gtest.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <string>

#include "platform/linux/basics_test_support.h"
#include "platform/unique_fd.h"
#include "plist/codec.h"

namespace platform {
namespace {

using testing::ScratchDir;
using testing::ScratchRoot;

// A datagram socket bound at path, as the monitor binds its port.
UniqueFd bind_datagram(const std::string& path) {
  UniqueFd fd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  sockaddr_un un{};
  un.sun_family = AF_UNIX;
  if (path.size() >= sizeof(un.sun_path)) return UniqueFd();
  ::memcpy(un.sun_path, path.data(), path.size());
  if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&un), sizeof(un)) != 0) return UniqueFd();
  return fd;
}

// The datagrams waiting on fd, each as a string.
std::vector<std::string> drain(int fd) {
  std::vector<std::string> got;
  std::string buffer(kMaxEventBytes + 1024, '\0');
  for (;;) {
    ssize_t n = ::recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (n < 0) break;
    got.emplace_back(buffer.data(), static_cast<size_t>(n));
  }
  return got;
}

// Nobody listening means no port: no socket, a socket left by a monitor
// that is gone, something that is not a socket, and a link from inside the
// sandbox to a live socket outside it.
TEST(EventPortSocketTest, NoPortWithoutAMonitorInsideTheRoot) {
  ScratchRoot root;
  std::unique_ptr<EventMonitor> monitor = make_socket_event_monitor();
  EXPECT_EQ(monitor->open_port(), nullptr);

  root.mkdir("/run/hubwarden");
  { UniqueFd gone = bind_datagram(root.path(kEventMonitorSocket)); }
  EXPECT_EQ(monitor->open_port(), nullptr);

  ::unlink(root.path(kEventMonitorSocket).c_str());
  root.write(kEventMonitorSocket, "not a socket");
  EXPECT_EQ(monitor->open_port(), nullptr);

  ScratchDir outside;
  UniqueFd elsewhere = bind_datagram(outside.path("/sock"));
  ASSERT_TRUE(elsewhere.valid());
  ::unlink(root.path(kEventMonitorSocket).c_str());
  root.link(kEventMonitorSocket, outside.path("/sock"));
  EXPECT_EQ(monitor->open_port(), nullptr);
}

// One datagram per post, an XML dictionary with "event_type" first and the
// event's keys after it in order; an event too large to send is refused
// whole, and a full queue makes post fail at once instead of waiting.
TEST(EventPortSocketTest, EachEventIsOneDatagramAndNothingBlocks) {
  ScratchRoot root;
  root.mkdir("/run/hubwarden");
  UniqueFd listener = bind_datagram(root.path(kEventMonitorSocket));
  ASSERT_TRUE(listener.valid());
  std::unique_ptr<EventPort> port = make_socket_event_monitor()->open_port();
  ASSERT_NE(port, nullptr);

  plist::Dict event{{"volumeName", "data"}, {"event_type", "spoofed"}, {"freePercent", "12.50"}};
  ASSERT_TRUE(port->post("com.example.diskstate", event));
  ASSERT_TRUE(port->post("second", {}));
  std::vector<std::string> got = drain(listener.get());
  ASSERT_EQ(got.size(), 2u);
  plist::Parsed first = plist::parse_xml(got[0]);
  ASSERT_TRUE(first.ok()) << first.error;
  ASSERT_NE(first.value.as_dict(), nullptr);
  const plist::Dict& d = *first.value.as_dict();
  ASSERT_EQ(d.size(), 3u);
  EXPECT_EQ(d.at_index(0).first, "event_type");
  EXPECT_EQ(*d.find_string("event_type"), "com.example.diskstate");
  EXPECT_EQ(d.at_index(1).first, "volumeName");
  EXPECT_EQ(d.at_index(2).first, "freePercent");
  EXPECT_EQ(*plist::parse_xml(got[1]).value.as_dict()->find_string("event_type"), "second");

  EXPECT_FALSE(port->post("big", {{"blob", std::string(kMaxEventBytes, 'x')}}));
  EXPECT_TRUE(drain(listener.get()).empty());

  int accepted = 0;
  while (accepted < 100000 && port->post("flood", {})) ++accepted;
  EXPECT_LT(accepted, 100000);
  EXPECT_EQ(drain(listener.get()).size(), static_cast<size_t>(accepted));
}

}  // namespace
}  // namespace platform
