// Distributed notifications reach a listener on the root's own system bus,
// and are dropped with a note when no bus runs.
#include "platform/linux/dbus_notifications.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "platform/linux/basics_test_support.h"
#include "platform/linux/private_bus_test_support.h"
#include "platform/linux/system_bus.h"

namespace platform {
namespace {

using testing::PrivateSystemBus;
using testing::ScratchRoot;

int on_posted(sd_bus_message* message, void* userdata, sd_bus_error*) {
  const char* name = nullptr;
  if (::sd_bus_message_read(message, "s", &name) >= 0)
    static_cast<std::vector<std::string>*>(userdata)->push_back(name);
  return 0;
}

TEST(DbusNotificationsTest, PostedNamesArriveAsSignalsOnTheRootsBus) {
  ScratchRoot root;
  testing::CapturedLog log;
  std::unique_ptr<DistributedNotifications> center = make_dbus_notifications();
  center->post("com.marlo.MenuBarClock.ClockNotification");
  EXPECT_TRUE(log.contains(Priority::Notice, "no system bus"));

  PrivateSystemBus bus(root);
  if (!bus.available()) GTEST_SKIP() << "dbus-daemon is not installed or did not start";
  SdBusPtr listener = open_system_bus();
  ASSERT_NE(listener, nullptr);
  std::vector<std::string> heard;
  sd_bus_slot* slot = nullptr;
  ASSERT_GE(::sd_bus_match_signal(listener.get(), &slot, nullptr, kNotificationsObjectPath, kNotificationsInterface,
                                  kNotificationsMember, on_posted, &heard),
            0);

  center->post("NSSystemTimeZoneDidChangeDistributedNotification");
  center->post("com.marlo.MenuBarClock.ClockNotification");
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (heard.size() < 2 && std::chrono::steady_clock::now() < deadline) {
    if (::sd_bus_process(listener.get(), nullptr) > 0) continue;
    ::sd_bus_wait(listener.get(), 100000);
  }
  EXPECT_EQ(heard, (std::vector<std::string>{"NSSystemTimeZoneDidChangeDistributedNotification",
                                             "com.marlo.MenuBarClock.ClockNotification"}));
  // A name D-Bus cannot carry is dropped with a note, not a crash.
  center->post(std::string("bad\xff", 4));
  EXPECT_TRUE(log.contains(Priority::Notice, "not sent:"));
  ::sd_bus_slot_unref(slot);
}

}  // namespace
}  // namespace platform
