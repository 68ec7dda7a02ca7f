#include "sentryd/event_socket.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>

#include "plist/codec.h"

namespace sentryd {
namespace {

namespace fs = std::filesystem;

void send_to(const std::string& path, const std::string& data) {
  int fd = ::socket(AF_UNIX, SOCK_DGRAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, path.c_str());
  ASSERT_EQ(::sendto(fd, data.data(), data.size(), 0, reinterpret_cast<sockaddr*>(&address), sizeof address),
            static_cast<ssize_t>(data.size()));
  ::close(fd);
}

// A real socket: stale files are replaced, a live monitor or a non-socket
// is left alone, and every kind of bad datagram is dropped and counted
// while good events around them still arrive, string members only.
TEST(EventSocket, BindsSafelyAndDropsBadDatagrams) {
  fs::path dir = fs::temp_directory_path() / ("sentryd_socket_" + std::to_string(::getpid()));
  fs::remove_all(dir);
  std::string path = (dir / "run" / "sentryd.sock").string();
  std::string error;
  {
    auto stale = EventSocket::open(path, &error);
    ASSERT_TRUE(stale) << error;
    struct stat st;
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0660u);
    EXPECT_FALSE(EventSocket::open(path, &error));  // it is alive
    // A second name keeps the file when the monitor goes, as a crashed
    // monitor would leave it.
    ::link(path.c_str(), (path + ".keep").c_str());
  }
  ::rename((path + ".keep").c_str(), path.c_str());
  auto port = EventSocket::open(path, &error);
  ASSERT_TRUE(port) << error;

  std::string good = plist::write_xml(plist::Dict{{"event_type", "t"}, {"name", "n"}, {"count", 3}});
  send_to(path, std::string(70000, '<'));
  send_to(path, good.substr(0, good.size() / 2));
  send_to(path, plist::write_xml(plist::Array{"t"}));
  send_to(path, plist::write_xml(plist::Dict{{"event_type", 1}}));
  send_to(path, good);
  std::optional<plist::Dict> event;
  int events = 0;
  while (port->receive(&event)) {
    if (!event) continue;
    ++events;
    EXPECT_EQ(*event->find_string("name"), "n");
    EXPECT_FALSE(event->contains("count"));
  }
  EXPECT_EQ(events, 1);
  EXPECT_EQ(port->counts().oversized, 1u);
  EXPECT_EQ(port->counts().unparsable, 1u);
  EXPECT_EQ(port->counts().not_dictionary, 1u);
  EXPECT_EQ(port->counts().no_event_type, 1u);
  port.reset();
  EXPECT_FALSE(fs::exists(path));

  std::ofstream(path) << "not a socket";
  EXPECT_FALSE(EventSocket::open(path, &error));
  EXPECT_TRUE(fs::exists(path));
  fs::remove_all(dir);
}

}  // namespace
}  // namespace sentryd
