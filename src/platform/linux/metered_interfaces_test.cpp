#include "platform/linux/metered_interfaces.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "platform/file_util.h"
#include "platform/linux/basics_test_support.h"
#include "platform/linux/job_map.h"

namespace platform {
namespace {

namespace fs = std::filesystem;
using testing::ScratchRoot;

// Lays out /sys/class/net/NAME the way the kernel does, with only the
// attributes the reader looks at.
struct Link {
  std::string name;
  int index;
  std::string flags = "0x1003";  // up, broadcast, multicast
  std::string operstate = "up";
  int type = 1;
  bool device = true;
  std::string devtype{};
  std::string master{};
  bool bonding = false, bridge = false, tun = false, statistics = true;
  uint64_t rx = 0, tx = 0;
};

class MeteredInterfacesTest : public ::testing::Test {
 protected:
  void add(const Link& l) {
    std::string dir = "/sys/class/net/" + l.name;
    root_.write(dir + "/ifindex", std::to_string(l.index) + "\n");
    root_.write(dir + "/flags", l.flags + "\n");
    root_.write(dir + "/operstate", l.operstate + "\n");
    root_.write(dir + "/type", std::to_string(l.type) + "\n");
    root_.write(dir + "/uevent", "INTERFACE=" + l.name + "\n" +
                                     (l.devtype.empty() ? "" : "DEVTYPE=" + l.devtype + "\n") +
                                     "IFINDEX=" + std::to_string(l.index) + "\n");
    if (l.device) fs::create_directory_symlink("../../../pci0000:00/0000:00:03.0", root_.path(dir + "/device"));
    if (!l.master.empty()) fs::create_directory_symlink("../" + l.master, root_.path(dir + "/master"));
    if (l.bonding) fs::create_directories(root_.path(dir + "/bonding"));
    if (l.bridge) fs::create_directories(root_.path(dir + "/bridge"));
    if (l.tun) root_.write(dir + "/tun_flags", "0x1002\n");
    if (l.statistics) {
      root_.write(dir + "/statistics/rx_bytes", std::to_string(l.rx) + "\n");
      root_.write(dir + "/statistics/tx_bytes", std::to_string(l.tx) + "\n");
    }
  }

  std::vector<InterfaceCounters> read(std::vector<std::string> extra = {}) {
    std::vector<InterfaceCounters> rows;
    EXPECT_TRUE(make_sysfs_interface_stats(std::move(extra), root_.path("/sys"))->read(&rows));
    return rows;
  }

  static std::vector<std::string> names(const std::vector<InterfaceCounters>& rows) {
    std::vector<std::string> out;
    for (const InterfaceCounters& r : rows) out.push_back(r.name + "=" + r.system_name);
    return out;
  }

  ScratchRoot root_;
  testing::CapturedLog log_;
};

TEST_F(MeteredInterfacesTest, HardwareAndBondsAreNumberedByIndexAndVirtualLinksLeftOut) {
  add({.name = "lo", .index = 1, .flags = "0x9", .operstate = "unknown", .type = 772, .device = false});
  add({.name = "eth0", .index = 2, .rx = 18446744073709551615u, .tx = 42});
  add({.name = "enp3s0", .index = 3, .rx = 1000, .tx = 2000});
  add({.name = "eth1", .index = 4, .master = "bond0"});  // bond member
  add({.name = "veth0", .index = 5, .device = false, .rx = 5, .tx = 6});
  add({.name = "br0", .index = 6, .device = false, .devtype = "bridge", .bridge = true});
  add({.name = "bond0", .index = 7, .device = false, .devtype = "bond", .bonding = true, .rx = 7});
  add({.name = "tap0", .index = 8, .device = false, .tun = true});
  add({.name = "wlan0", .index = 9, .devtype = "wlan", .rx = 9});
  add({.name = "eth0.100", .index = 10, .device = false, .devtype = "vlan"});
  add({.name = "eth2", .index = 11, .flags = "0x1002", .operstate = "down"});  // administratively down
  add({.name = "eth3", .index = 12, .operstate = "down"});                     // no carrier
  add({.name = "eth5", .index = 13, .operstate = "unknown"});                  // driver without carrier state
  add({.name = "tun0", .index = 14, .flags = "0x1091", .type = 65534, .device = false});
  add({.name = "eth4", .index = 15, .statistics = false});  // vanished while being read
  add({.name = "eth6", .index = 16, .flags = "garbage"});

  std::vector<InterfaceCounters> rows = read();
  ASSERT_EQ(names(rows), (std::vector<std::string>{"en0=eth0", "en1=enp3s0", "en2=bond0", "en3=wlan0", "en4=eth5"}));
  EXPECT_EQ(rows[0].input_bytes, 18446744073709551615u);
  EXPECT_EQ(rows[0].output_bytes, 42u);
  EXPECT_EQ(rows[1].input_bytes, 1000u);
  EXPECT_EQ(rows[1].output_bytes, 2000u);

  // Listed interfaces join in index order whatever their kind; loopback and
  // interfaces that are down never do.
  rows = read({"veth*", "tun0", "lo", "eth2", "eth0"});
  EXPECT_EQ(names(rows), (std::vector<std::string>{"en0=eth0", "en1=enp3s0", "en2=veth0", "en3=bond0", "en4=wlan0",
                                                   "en5=eth5", "en6=tun0"}));

  // The same set gives the same names on every reading, and by a new reader
  // (a restart).
  EXPECT_EQ(names(read()), names(read()));

  // Without a class/net directory there is nothing to list.
  ScratchRoot other;
  std::vector<InterfaceCounters> none;
  EXPECT_FALSE(make_sysfs_interface_stats({}, other.path("/sys"))->read(&none));
}

TEST_F(MeteredInterfacesTest, NamesTheKernelCouldNotHaveMadeAreLoggedOnceAndSkipped) {
  add({.name = "en0", .index = 2, .rx = 1});      // already called what it is metered as
  add({.name = "abcdefghijklmnop", .index = 3});  // 16 bytes
  add({.name = std::string("eth\xff", 4), .index = 4});
  add({.name = "abcdefghijklmno", .index = 5});  // 15 bytes: the longest allowed
  for (int i = 0; i < 2; ++i) EXPECT_EQ(names(read()), (std::vector<std::string>{"en0=", "en1=abcdefghijklmno"}));
  EXPECT_TRUE(log_.contains(Priority::Error, "\"abcdefghijklmnop\": name longer than 15 bytes"));
  EXPECT_TRUE(log_.contains(Priority::Error, "\"eth\\xff\": name is not UTF-8"));
  // One reader logs each bad name, and the mapping, once rather than on
  // every reading; a change of the mapping is logged again.
  log_.clear();
  auto stats = make_sysfs_interface_stats({}, root_.path("/sys"));
  std::vector<InterfaceCounters> rows;
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(stats->read(&rows));
  EXPECT_EQ(log_.lines().size(), 3u);
  EXPECT_TRUE(log_.contains(Priority::Notice, "metering network interfaces en0 as en0, abcdefghijklmno as en1"));
  add({.name = "eth9", .index = 1});
  ASSERT_TRUE(stats->read(&rows));
  EXPECT_TRUE(log_.contains(Priority::Notice, "eth9 as en0, en0 as en1, abcdefghijklmno as en2"));
  EXPECT_EQ(log_.lines().size(), 4u);
}

TEST_F(MeteredInterfacesTest, ExtraInterfacesComeFromTheHostConfiguration) {
  EXPECT_TRUE(load_metered_interfaces().empty());
  auto config = [](const std::string& value) {
    return "<plist version=\"1.0\"><dict><key>meteredInterfaces</key>" + value + "</dict></plist>";
  };
  root_.write(kShippedHostConfigPath, config("<array><string>veth*</string></array>"));
  EXPECT_EQ(load_metered_interfaces(), std::vector<std::string>{"veth*"});
  // The administrator's list replaces the shipped one; bad entries are
  // logged and dropped.
  root_.write(kHostConfigPath, config("<array><string>wg0</string><integer>3</integer><string></string></array>"));
  EXPECT_EQ(load_metered_interfaces(), std::vector<std::string>{"wg0"});
  EXPECT_TRUE(log_.contains(Priority::Error, "not an interface name"));
  // A value of the wrong type, or no key at all, leaves the shipped list.
  root_.write(kHostConfigPath, config("<string>wg0</string>"));
  EXPECT_EQ(load_metered_interfaces(), std::vector<std::string>{"veth*"});
  EXPECT_TRUE(log_.contains(Priority::Error, "not an array"));
  root_.write(kHostConfigPath, "<plist version=\"1.0\"><dict/></plist>");
  EXPECT_EQ(load_metered_interfaces(), std::vector<std::string>{"veth*"});
  // An empty list turns the shipped one off.
  root_.write(kHostConfigPath, config("<array/>"));
  EXPECT_TRUE(load_metered_interfaces().empty());
}

}  // namespace
}  // namespace platform
