#include "platform/linux/system_bus.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include "platform/linux/basics_test_support.h"
#include "platform/linux/private_bus_test_support.h"

namespace platform {
namespace {

using testing::PrivateSystemBus;
using testing::ScratchRoot;

// A sandbox never falls back to the machine's bus: without a bus under the
// root there is none, and the exported address names the root's socket
// even before a bus runs there.
TEST(SystemBusTest, SandboxSeesOnlyItsOwnBus) {
  ScratchRoot root;
  EXPECT_FALSE(system_bus_address());
  EXPECT_EQ(open_system_bus(), nullptr);
  EXPECT_FALSE(bus_name_has_owner(nullptr, "org.freedesktop.DBus"));

  const char* saved = ::getenv("DBUS_SYSTEM_BUS_ADDRESS");
  std::string before = saved ? saved : "";
  export_system_bus_address(root.dir() + "/");
  EXPECT_EQ(std::string(::getenv("DBUS_SYSTEM_BUS_ADDRESS")),
            "unix:path=" + root.dir() + "/run/dbus/system_bus_socket");
  if (saved)
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", before.c_str(), 1);
  else
    ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");

  PrivateSystemBus bus(root);
  if (!bus.available()) GTEST_SKIP() << "dbus-daemon is not installed or did not start";
  ASSERT_EQ(system_bus_address(), "unix:path=" + bus.socket_path());
  SdBusPtr connection = open_system_bus();
  ASSERT_NE(connection, nullptr);
  EXPECT_TRUE(bus_name_has_owner(connection.get(), "org.freedesktop.DBus"));
  EXPECT_FALSE(bus_name_has_owner(connection.get(), "org.freedesktop.hostname1"));
}

}  // namespace
}  // namespace platform
