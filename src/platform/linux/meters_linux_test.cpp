#include "platform/linux/meters_linux.h"

#include <gtest/gtest.h>
#include <sys/statvfs.h>

#include <string>

#include "platform/linux/basics_test_support.h"

namespace platform {
namespace {

// A scratch proc/sys/dev tree; mount points are real directories inside it
// so that statvfs works on them.
using Tree = testing::ScratchDir;

// user, nice, system, idle
std::vector<uint32_t> counts(const ProcessorTicks& t) { return {t.user, t.nice, t.system, t.idle}; }
using Counts = std::vector<uint32_t>;

TEST(ProcProcessorStatsTest, OnlineStateThirtyTwoBitsIoWaitAndDamagedLines) {
  Tree t;
  t.write("/proc/stat",
          "cpu  9 9 9 9 9 0 0 0 0 0\n"
          "cpu1 10 1 20 4294967306 0 0 0 0 0 0\n"
          "cpu0 1 2 3 4 0 0 0 0 0 0\n"
          "cpu2 7 7 7 7\n"
          "cpufreq 1 2 3 4\n"
          "intr 12345\n");
  t.write("/sys/devices/system/cpu/cpu2/online", "0\n");
  t.write("/sys/devices/system/cpu/cpu1/online", "1\n");
  auto stats = make_proc_processor_stats(t.path("/proc"), t.path("/sys"));
  std::vector<ProcessorTicks> ticks;
  ASSERT_EQ(stats->read(&ticks), 0);
  ASSERT_EQ(ticks.size(), 3u);
  EXPECT_EQ(counts(ticks[0]), (Counts{1, 2, 3, 4}));
  EXPECT_TRUE(ticks[0].running);  // cpu0 has no online file
  EXPECT_EQ(ticks[1].idle, 10u);  // 2^32 + 10, wrapped like a 32-bit counter
  EXPECT_TRUE(ticks[1].running);
  EXPECT_FALSE(ticks[2].running);

  auto missing = make_proc_processor_stats(t.path("/nowhere"), t.path("/sys"));
  EXPECT_NE(missing->read(&ticks), 0);
  EXPECT_TRUE(ticks.empty());

  // I/O wait is idle; interrupts and steal are system. Columns: user nice
  // system idle iowait irq softirq steal guest guest_nice, then one no
  // kernel writes yet.
  t.write("/proc/stat",
          "cpu0 100 7 10 20 500 1 2 3 50 5 999\n"
          "cpu1 100 0 0 0 100\n");
  ASSERT_EQ(stats->read(&ticks), 0);
  ASSERT_EQ(ticks.size(), 2u);
  EXPECT_EQ(counts(ticks[0]), (Counts{100, 7, 16, 520}));  // guest time is already inside user
  EXPECT_EQ(counts(ticks[1]), (Counts{100, 0, 0, 100}));   // half waiting for I/O: half busy

  // A short line or a counter that is not a number fails the whole reading
  // rather than moving the next processor into its place.
  for (const char* damaged :
       {"cpu0 1 2 3 4\ncpu1 1 2 3\ncpu2 1 2 3 4\n", "cpu0 1 2 3 4\ncpu1 1 x 3 4 5\n", "cpu0 1 2 3 -4\n", "cpu0\n"}) {
    SCOPED_TRACE(damaged);
    t.write("/proc/stat", damaged);
    EXPECT_NE(stats->read(&ticks), 0);
    EXPECT_TRUE(ticks.empty());
  }
}

TEST(MountVolumesTest, ListsRootFirstWithLabelsLocksAndBuses) {
  Tree t;
  std::string data = t.mkdir("/mnt/data");
  std::string stick = t.mkdir("/mnt/stick");
  std::string ro = t.mkdir("/mnt/ro");
  std::string hwro = t.mkdir("/mnt/hwro");
  std::string share = t.mkdir("/mnt/share");
  std::string spaced = t.mkdir("/mnt/with space");
  t.mkdir("/mnt/bind");
  t.write("/mnt/resolv.conf", "");
  // "@" stands for the scratch directory, where the mount points are.
  std::string mountinfo =
      "1 0 0:1 / / rw - rootfs rootfs rw\n"
      "20 1 8:1 / / rw,relatime shared:1 - ext4 /dev/sda1 rw\n"
      "21 20 0:5 / /proc rw,nosuid - proc proc rw\n"
      "22 20 8:2 / @/mnt/data rw shared:2 master:1 - ext4 /dev/sda2 rw\n"
      "23 20 8:1 /srv @/mnt/bind rw - ext4 /dev/sda1 rw\n"
      "24 20 8:17 / @/mnt/stick rw - vfat /dev/sdb1 rw\n"
      "25 20 8:3 / @/mnt/ro ro - ext4 /dev/sda3 rw\n"
      "26 20 8:4 / @/mnt/hwro rw - ext4 /dev/sda4 rw\n"
      "27 20 0:40 / @/mnt/share rw - nfs4 server:/export rw\n"
      "28 20 0:41 / @/mnt/with\\040space rw - tmpfs tmpfs rw\n"
      "29 20 8:5 /etc/resolv.conf @/mnt/resolv.conf rw - ext4 /dev/sda5 rw\n"
      "garbage line\n";
  for (size_t at = 0; (at = mountinfo.find('@', at)) != std::string::npos; at += t.dir().size())
    mountinfo.replace(at, 1, t.dir());
  t.write("/proc/self/mountinfo", mountinfo);
  for (std::string part : {"sda1", "sda2", "sda3", "sda4", "sda5"}) {
    t.write("/sys/devices/pci0/block/sda/" + part + "/partition", "1\n");
    t.write("/sys/devices/pci0/block/sda/" + part + "/ro", part == "sda4" ? "1\n" : "0\n");
    t.link("/sys/dev/block/8:" + part.substr(3), "../../devices/pci0/block/sda/" + part);
  }
  t.write("/sys/devices/pci0/block/sda/removable", "0\n");
  t.write("/sys/devices/pci0/usb1/1-1/block/sdb/sdb1/partition", "1\n");
  t.write("/sys/devices/pci0/usb1/1-1/block/sdb/sdb1/ro", "0\n");
  t.link("/sys/dev/block/8:17", "../../devices/pci0/usb1/1-1/block/sdb/sdb1");
  t.link("/dev/disk/by-label/My\\x20Data", "../../sda2");
  t.link("/dev/disk/by-label/root", "../../sda1");
  t.link("/dev/disk/by-label/bad\\xff", "../../sdb1");

  auto volumes = make_mount_volumes(t.path("/proc"), t.path("/sys"), t.path("/dev"));
  struct Expected {
    std::optional<std::string> name;
    std::string mount_point;
    bool software_locked, hardware_locked, internal, external;
  };
  std::vector<Expected> expected = {
      {"root", "/", false, false, true, false},
      {"/proc", "/proc", false, false, false, false},
      {"My Data", data, false, false, true, false},
      {std::nullopt, stick, false, false, false, true},  // label is not UTF-8
      {ro, ro, true, false, true, false},
      {hwro, hwro, false, true, true, false},
      {share, share, false, false, false, false},
      {spaced, spaced, false, false, false, false},
  };
  for (size_t i = 0; i < expected.size(); ++i) {
    SCOPED_TRACE(expected[i].mount_point);
    int index = static_cast<int>(i) + 1;
    VolumeInfo info;
    VolumeAttributes attributes;
    ASSERT_EQ(volumes->info(index, &info), 0);
    ASSERT_EQ(volumes->attributes(index, &attributes), 0);
    EXPECT_EQ(info.name, expected[i].name);
    EXPECT_EQ(info.mount_point, expected[i].mount_point);
    EXPECT_EQ(info.software_locked, expected[i].software_locked);
    EXPECT_EQ(info.hardware_locked, expected[i].hardware_locked);
    EXPECT_EQ(attributes.internal_bus, expected[i].internal);
    EXPECT_EQ(attributes.external_bus, expected[i].external);
  }
  VolumeInfo past;
  VolumeAttributes past_attributes;
  EXPECT_NE(volumes->info(static_cast<int>(expected.size()) + 1, &past), 0);
  EXPECT_NE(volumes->attributes(static_cast<int>(expected.size()) + 1, &past_attributes), 0);
  EXPECT_NE(volumes->info(0, &past), 0);

  // Sizes are those of the mounted file system; network ones are not asked.
  VolumeInfo root;
  volumes->info(1, &root);
  struct statvfs st;
  ASSERT_EQ(::statvfs("/", &st), 0);
  EXPECT_EQ(root.total_bytes, static_cast<uint64_t>(st.f_blocks) * st.f_frsize);
  VolumeInfo network;
  volumes->info(7, &network);
  EXPECT_EQ(network.total_bytes, 0u);

  EXPECT_EQ(volumes->display_name("/"), std::optional<std::string>("root"));
  EXPECT_EQ(volumes->display_name("/nowhere"), std::nullopt);

  // An unreadable mount table lists nothing.
  auto empty = make_mount_volumes(t.path("/nowhere"), t.path("/sys"), t.path("/dev"));
  EXPECT_NE(empty->info(1, &past), 0);
}

// The real system: what the host installs in production.
TEST(LinuxMetersTest, ReadTheRunningSystem) {
  std::vector<ProcessorTicks> ticks;
  ASSERT_EQ(make_proc_processor_stats()->read(&ticks), 0);
  EXPECT_GE(ticks.size(), 1u);
  EXPECT_TRUE(ticks[0].running);

  auto volumes = make_mount_volumes();
  VolumeInfo root;
  ASSERT_EQ(volumes->info(1, &root), 0);
  EXPECT_EQ(root.mount_point, "/");
  EXPECT_GT(root.total_bytes, 0u);
  EXPECT_TRUE(volumes->display_name("/").has_value());
}

}  // namespace
}  // namespace platform
