#include <gtest/gtest.h>
#include <sys/utsname.h>

#include <cstring>

#include "platform/linux/basics.h"
#include "platform/linux/basics_test_support.h"
#include "platform/linux/serial_layout.h"

namespace platform {
namespace {

using testing::ScratchRoot;

// Reads a serial the way the module does: the bytes as a C string of at
// most 255 characters, tested for '-', then spliced from fixed offsets.
std::string decode_serial(const plist::Data& data) {
  char buffer[256] = {};
  std::memcpy(buffer, data.data(), std::min<size_t>(data.size(), 255));
  char serial[20] = {};
  if (std::strchr(buffer, '-')) {
    std::memcpy(serial, buffer + 12, 8);
    std::memcpy(serial + 8, buffer, 11);
  } else {
    std::memcpy(serial, buffer + 13, 8);
    std::memcpy(serial + 8, buffer, 3);
  }
  return serial;
}

bool carried_exactly(const std::string& s) {
  return s.size() <= 11 || s.size() == 19 || s.find('-', 8) != std::string::npos;
}

TEST(SerialLayoutTest, EveryShortSerialRoundTrips) {
  // Every string over {'A', '-'} of each length up to 19, and over a wider
  // alphabet up to 8: dashes at every position, in either layout.
  for (size_t length = 0; length <= 19; ++length) {
    for (uint32_t bits = 0; bits < (1u << length); ++bits) {
      std::string s(length, 'A');
      for (size_t i = 0; i < length; ++i)
        if (bits & (1u << i)) s[i] = '-';
      std::string back = decode_serial(encode_serial_number(s));
      if (carried_exactly(s)) {
        ASSERT_EQ(back, s);
      } else {
        std::string padded = s;
        padded.resize(19, ' ');
        ASSERT_EQ(back, padded);
      }
    }
  }
  const std::string alphabet = "a9-Z";
  for (size_t length = 0; length <= 8; ++length) {
    size_t combinations = 1;
    for (size_t i = 0; i < length; ++i) combinations *= alphabet.size();
    for (size_t n = 0; n < combinations; ++n) {
      std::string s;
      for (size_t i = 0, k = n; i < length; ++i, k /= alphabet.size()) s += alphabet[k % alphabet.size()];
      ASSERT_EQ(decode_serial(encode_serial_number(s)), s);
    }
  }
}

TEST(SerialLayoutTest, LongAndOddSerials) {
  EXPECT_EQ(decode_serial(encode_serial_number("C02XK1ABJG5H")), "C02XK1ABJG5H       ");
  EXPECT_EQ(decode_serial(encode_serial_number("ABCDEFGHIJKLMNOPQRSTUVWXYZ")), "ABCDEFGHIJKLMNOPQRS");
  EXPECT_EQ(decode_serial(encode_serial_number(std::string("AB\0CD", 5))), "AB");
  EXPECT_EQ(decode_serial(encode_serial_number("ABCDEFGH-IJK")), "ABCDEFGH-IJK");
  // A '-' among the first eight characters cannot select the long layout.
  EXPECT_EQ(decode_serial(encode_serial_number("VMware-56 4d 1a")), "VMware-56 4d 1a    ");
  // Non-ASCII bytes pass through untouched.
  EXPECT_EQ(decode_serial(encode_serial_number("Śerial-ü")), "Śerial-ü");
}

class HardwareFixture : public ::testing::Test {
 protected:
  std::unique_ptr<Hardware> hardware() { return make_linux_hardware(root_.path("/proc"), root_.path("/sys")); }
  ScratchRoot root_;
};

constexpr const char* kTwoSocketCpuinfo =
    "processor\t: 0\n"
    "model name\t: Intel(R) Xeon(R) CPU E5-2680 v4 @ 2.40GHz\n"
    "cpu MHz\t\t: 2394.454\n"
    "physical id\t: 0\n"
    "cpu cores\t: 14\n"
    "\n"
    "processor\t: 1\n"
    "model name\t: Intel(R) Xeon(R) CPU E5-2680 v4 @ 2.40GHz\n"
    "cpu MHz\t\t: 1200.000\n"
    "physical id\t: 1\n"
    "cpu cores\t: 14\n"
    "\n"
    "processor\t: 2\n"
    "physical id\t: 0\n"
    "\n";

TEST_F(HardwareFixture, ReadsProcessorsMemoryAndModel) {
  root_.write("/proc/cpuinfo", kTwoSocketCpuinfo);
  root_.write("/proc/meminfo", "MemTotal:       16314116 kB\nMemFree:         1000 kB\n");
  root_.write("/sys/devices/system/cpu/online", "0-2,4\n");
  root_.write("/sys/devices/system/cpu/cpu0/cpufreq/cpuinfo_max_freq", "3300000\n");
  root_.write("/sys/class/dmi/id/product_name", "  PowerEdge R630 \n");
  root_.write("/sys/class/dmi/id/product_serial", "CZJ1234ABC\n");
  root_.write("/sys/class/dmi/id/sys_vendor", "HPE\n");
  auto hw = hardware();
  EXPECT_EQ(hw->sysctl_integer("hw.memsize"), 16314116ull * 1024);
  EXPECT_EQ(hw->sysctl_integer("hw.packages"), 2u);
  EXPECT_EQ(hw->sysctl_integer("hw.cpufrequency"), 2394454000u);  // the first processor's
  EXPECT_EQ(hw->sysctl_integer("hw.cpufrequency_max"), 3300000000u);
  EXPECT_EQ(hw->sysctl_integer("machdep.cpu.core_count"), 14u);
  EXPECT_EQ(hw->sysctl_integer("machdep.cpu.cores_per_package"), 14u);
  EXPECT_EQ(hw->sysctl_integer("hw.ncpu"), 4u);
  EXPECT_EQ(hw->sysctl_string("machdep.cpu.brand_string"), "Intel(R) Xeon(R) CPU E5-2680 v4 @ 2.40GHz");
  EXPECT_EQ(hw->sysctl_string("hw.model"), "HPE PowerEdge R630");
  // Names with nothing behind them on Linux.
  for (const char* name : {"hw.cpufamily", "hw.busfrequency"}) EXPECT_FALSE(hw->sysctl_integer(name)) << name;
  EXPECT_FALSE(hw->sysctl_string("no.such.name"));
  EXPECT_FALSE(hw->registry_search("IODeviceTree:/cpus", "cpu-type"));

  // The platform device carries the DMI serial.
  std::vector<plist::Dict> devices = hw->registry_devices("IOPlatformExpertDevice");
  ASSERT_EQ(devices.size(), 1u);
  const plist::Value* serial = devices[0].find("serial-number");
  ASSERT_TRUE(serial && serial->as_data());
  EXPECT_EQ(decode_serial(*serial->as_data()), "CZJ1234ABC");
  EXPECT_EQ(*devices[0].find_string("model"), "PowerEdge R630");
  EXPECT_EQ(*devices[0].find_string("manufacturer"), "HPE");
  EXPECT_TRUE(hw->registry_devices("IOPlatformDevice").empty());
}

TEST_F(HardwareFixture, FallsBackOrGivesUpWhenFilesAreMissingOrOdd) {
  auto hw = hardware();
  // Nothing at all: a sandbox must not report the real machine.
  for (const char* name : {"hw.memsize", "hw.packages", "hw.cpufrequency", "hw.ncpu"})
    EXPECT_FALSE(hw->sysctl_integer(name)) << name;
  EXPECT_FALSE(hw->sysctl_string("hw.model"));
  EXPECT_TRUE(hw->registry_devices("IOPlatformExpertDevice").empty());

  // A machine without physical ids or MHz lines (virtual or ARM): one
  // package, speed from cpufreq, count from the processor blocks.
  root_.write("/proc/cpuinfo", "Hardware\t: board\n\nprocessor : 0\nBogoMIPS : 50\n\nprocessor : 1\n");
  root_.write("/proc/meminfo", "MemTotal: 99999999999999999999 kB\n");
  root_.write("/sys/devices/system/cpu/online", "garbage");
  root_.write("/sys/devices/system/cpu/cpu0/cpufreq/scaling_cur_freq", "1800000");
  root_.write("/sys/firmware/devicetree/base/model", std::string("Raspberry Pi 4 Model B\0", 23));
  root_.write("/sys/class/dmi/id/product_serial", "   \n");
  EXPECT_TRUE(hw->registry_devices("IOPlatformExpertDevice").empty());
  EXPECT_EQ(hw->sysctl_integer("hw.packages"), 1u);
  EXPECT_EQ(hw->sysctl_integer("hw.cpufrequency"), 1800000000u);
  EXPECT_EQ(hw->sysctl_integer("hw.ncpu"), 2u);
  EXPECT_FALSE(hw->sysctl_integer("hw.memsize"));  // overflow is unreadable, not wrapped
  EXPECT_FALSE(hw->sysctl_integer("machdep.cpu.core_count"));
  EXPECT_FALSE(hw->sysctl_string("machdep.cpu.brand_string"));
  EXPECT_EQ(hw->sysctl_string("hw.model"), "Raspberry Pi 4 Model B");
}

TEST_F(HardwareFixture, ModelNamesFromDmiThenTheDeviceTree) {
  auto hw = hardware();
  root_.write("/sys/class/dmi/id/sys_vendor", "Dell Inc.\n");
  root_.write("/sys/class/dmi/id/product_name", "PowerEdge R630\n");
  root_.write("/sys/class/dmi/id/product_version", "Not Specified\n");
  EXPECT_EQ(hw->sysctl_string("hw.model_display_name"), "PowerEdge R630");
  EXPECT_EQ(hw->sysctl_string("hw.model"), "Dell Inc. PowerEdge R630");
  root_.write("/sys/class/dmi/id/sys_vendor", "QEMU\n");
  root_.write("/sys/class/dmi/id/product_name", "Standard PC (Q35 + ICH9, 2009)\n");
  root_.write("/sys/class/dmi/id/product_version", "pc-q35-7.2\n");
  EXPECT_EQ(hw->sysctl_string("hw.model"), "QEMU Standard PC (Q35 + ICH9, 2009) pc-q35-7.2");

  // Placeholders left by the firmware: the motherboard names the machine.
  root_.write("/sys/class/dmi/id/sys_vendor", "System manufacturer\n");
  root_.write("/sys/class/dmi/id/product_name", "  To Be Filled By O.E.M. \n");
  root_.write("/sys/class/dmi/id/board_vendor", "ASUSTeK COMPUTER INC.\n");
  root_.write("/sys/class/dmi/id/board_name", "PRIME   B450M-A\n");
  root_.write("/sys/class/dmi/id/board_version", "Rev X.0x\n");
  EXPECT_EQ(hw->sysctl_string("hw.model_display_name"), "PRIME B450M-A");
  EXPECT_EQ(hw->sysctl_string("hw.model"), "ASUSTeK COMPUTER INC. PRIME B450M-A Rev X.0x");

  // Nothing usable in DMI: the device tree, under /proc first.
  root_.write("/sys/class/dmi/id/board_name", "Default string\n");
  root_.write("/sys/firmware/devicetree/base/model", std::string("Other Board\0", 12));
  EXPECT_EQ(hw->sysctl_string("hw.model"), "Other Board");
  root_.write("/proc/device-tree/model", std::string("Raspberry Pi 4 Model B Rev 1.4\0", 31));
  EXPECT_EQ(hw->sysctl_string("hw.model"), "Raspberry Pi 4 Model B Rev 1.4");
  EXPECT_EQ(hw->sysctl_string("hw.model_display_name"), "Raspberry Pi 4 Model B Rev 1.4");
}

TEST_F(HardwareFixture, ProcessorNamesOnOtherArchitectures) {
  auto hw = hardware();
  const std::pair<const char*, std::optional<std::string>> cases[] = {
      // Older ARM kernels: the name is in the block about the whole machine.
      {"Processor\t: ARMv7 Processor rev 4 (v7l)\nprocessor\t: 0\nBogoMIPS\t: 38.40\n\nHardware\t: BCM2835\n",
       "ARMv7 Processor rev 4 (v7l)"},
      {"system type\t\t: MediaTek MT7621\nprocessor\t\t: 0\ncpu model\t\t: MIPS 1004Kc V2.15\n", "MIPS 1004Kc V2.15"},
      {"processor\t: 0\ncpu\t\t: POWER9 (raw), altivec supported\nclock\t\t: 2166MHz\n",
       "POWER9 (raw), altivec supported"},
      {"processor\t: 0\nmodel name\t: Intel(R) Xeon(R) CPU           E5430  @ 2.66GHz\n",
       "Intel(R) Xeon(R) CPU E5430 @ 2.66GHz"},
      // Modern ARM kernels name no model at all.
      {"processor\t: 0\nCPU implementer\t: 0x41\nCPU part\t: 0xd08\n", std::nullopt},
  };
  for (const auto& [cpuinfo, name] : cases) {
    root_.write("/proc/cpuinfo", cpuinfo);
    EXPECT_EQ(hw->sysctl_string("machdep.cpu.brand_string"), name) << cpuinfo;
  }
}

TEST(LinuxHardwareTest, LiveSystemAnswersTheBasics) {
  auto hw = make_linux_hardware();
  std::optional<uint64_t> memory = hw->sysctl_integer("hw.memsize");
  ASSERT_TRUE(memory);
  EXPECT_GT(*memory, 64ull << 20);
  EXPECT_GE(hw->sysctl_integer("hw.ncpu").value_or(0), 1u);
  EXPECT_EQ(hw->sysctl_string("kern.ostype"), "Linux");
  EXPECT_FALSE(hw->sysctl_string("kern.osrelease").value_or("").empty());
  // At least the kernel's machine name.
  EXPECT_FALSE(hw->sysctl_string("hw.model").value_or("").empty());
  EXPECT_FALSE(hw->sysctl_string("hw.model_display_name").value_or("").empty());

  std::optional<HostBasicInfo> info = hw->host_basic_info();
  ASSERT_TRUE(info);
  EXPECT_GE(info->physical_cpus, 1);
  struct utsname u;
  ASSERT_EQ(::uname(&u), 0);
  if (std::string(u.machine) == "x86_64") {
    EXPECT_EQ(info->cpu_type, 7 | 0x01000000);
    EXPECT_EQ(info->cpu_subtype, 3);
  } else if (std::string(u.machine) == "aarch64") {
    EXPECT_EQ(info->cpu_type, 12 | 0x01000000);
  }
}

}  // namespace
}  // namespace platform
