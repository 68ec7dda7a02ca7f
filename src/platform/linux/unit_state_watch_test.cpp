#include "platform/linux/unit_state_watch.h"

#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <vector>

#include "platform/fake/manual_run_loop.h"
#include "platform/linux/basics_test_support.h"
#include "platform/linux/private_bus_test_support.h"
#include "platform/notifications.h"

namespace platform {
namespace {

using namespace std::chrono_literals;
using testing::PrivateSystemBus;
using testing::ScratchRoot;

// Plays the service manager on the test's bus: owns its name and sends the
// property changes of one unit object.
void emit_active_state(sd_bus* bus, const char* unit_path, const char* state) {
  sd_bus_message* m = nullptr;
  ASSERT_GE(sd_bus_message_new_signal(bus, &m, unit_path, "org.freedesktop.DBus.Properties", "PropertiesChanged"), 0);
  ASSERT_GE(sd_bus_message_append(m, "s", "org.freedesktop.systemd1.Unit"), 0);
  ASSERT_GE(sd_bus_message_append(m, "a{sv}", 2, "SubState", "s", "running", "ActiveState", "s", state), 0);
  ASSERT_GE(sd_bus_message_append(m, "as", 0), 0);
  ASSERT_GE(sd_bus_send(bus, m, nullptr), 0);
  sd_bus_message_unref(m);
  sd_bus_flush(bus);
}

// Changes of a watched unit's activity become one "setState" per settled
// burst, named after the unit; other units, other properties and repeats of
// the same state post nothing.
TEST(UnitStateWatchTest, PostsSettledActivityChangesOfWatchedUnits) {
  ScratchRoot root;
  PrivateSystemBus bus(root);
  if (!bus.available()) GTEST_SKIP() << "dbus-daemon is not installed or did not start";
  SdBusPtr manager = open_system_bus();
  ASSERT_NE(manager, nullptr);
  ASSERT_GE(sd_bus_request_name(manager.get(), "org.freedesktop.systemd1", 0), 0);

  std::vector<std::string> posted;
  auto id = default_center().add_observer("setState",
                                          [&](const Notification& n) { posted.push_back(n.object.value_or("")); });
  ManualRunLoop loop;
  auto watch = make_unit_state_watch(&loop, {"ssh.service"}, 100ms);
  ASSERT_NE(watch, nullptr);
  loop.run_posted();

  auto turn = [&] {
    for (int i = 0; i < 5; ++i) loop.poll_fds(50ms);
    loop.advance(100ms);
  };
  emit_active_state(manager.get(), "/org/freedesktop/systemd1/unit/ssh_2eservice", "deactivating");
  emit_active_state(manager.get(), "/org/freedesktop/systemd1/unit/ssh_2eservice", "inactive");
  emit_active_state(manager.get(), "/org/freedesktop/systemd1/unit/cron_2eservice", "inactive");
  turn();
  EXPECT_EQ(posted, std::vector<std::string>{"ssh.service"});

  emit_active_state(manager.get(), "/org/freedesktop/systemd1/unit/ssh_2eservice", "inactive");
  turn();
  EXPECT_EQ(posted.size(), 1u);
  emit_active_state(manager.get(), "/org/freedesktop/systemd1/unit/ssh_2eservice", "active");
  turn();
  EXPECT_EQ(posted.size(), 2u);

  watch.reset();
  default_center().remove_observer(id);
  EXPECT_EQ(make_unit_state_watch(&loop, {}), nullptr);
}

}  // namespace
}  // namespace platform
