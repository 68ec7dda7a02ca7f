#include <gtest/gtest.h>

#include "monitor/hwinfo/computer_info.h"
#include "platform/fake/fake_hardware.h"
#include "platform/file_util.h"
#include "request/spine_test_support.h"

namespace hubwarden {
namespace {

using testing::Installed;

const std::pair<std::string, std::string> kCpuType{"IODeviceTree:/cpus", "cpu-type"};

class AsiTest : public ::testing::Test {
 protected:
  AsiTest() : installed_(&hw_) { reset_cpu_kind_caches_for_testing(); }
  ~AsiTest() override { reset_cpu_kind_caches_for_testing(); }
  platform::FakeHardware hw_;
  Installed<platform::Hardware> installed_;
};

TEST_F(AsiTest, RegistryCpuTypeExactMatchFallbackAndBadLengths) {
  hw_.integers["machdep.cpu.core_count"] = 2;
  hw_.registry[kCpuType] = plist::Value(plist::Data{1, 3});  // minor 1, major 3
  EXPECT_EQ(ASI_CopyCPUKind(false), "Intel Core 2 Duo");

  hw_.registry[kCpuType] = plist::Value(plist::Data{3, 4});  // major 4, minor 3: no exact row
  EXPECT_EQ(ASI_CopyCPUKind(false), "Dual-Core Intel Xeon");

  ::testing::internal::CaptureStdout();
  hw_.registry[kCpuType] = plist::Value(plist::Data{1, 2, 9});  // three bytes: first two used
  EXPECT_EQ(ASI_CopyCPUKind(false), "Intel Core Duo");
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "cpu-type data length incorrect size, expect 2, received 3\n");

  ::testing::internal::CaptureStdout();
  hw_.registry[kCpuType] = plist::Value(plist::Data{1});
  EXPECT_FALSE(ASI_CopyCPUKind(false));
  ::testing::internal::GetCapturedStdout();

  hw_.registry[kCpuType] = plist::Value("not data");
  EXPECT_FALSE(ASI_CopyCPUKind(false));
}

TEST_F(AsiTest, FamilyTableAndTheStickyXeonFlag) {
  hw_.integers["hw.cpufamily"] = 0x426f69ef;
  hw_.integers["machdep.cpu.cores_per_package"] = 2;
  hw_.strings["machdep.cpu.brand_string"] = "Intel(R) Core(TM)2 CPU";
  EXPECT_EQ(ASI_CopyCPUKind(false), "Intel Core 2 Duo");
  hw_.strings["machdep.cpu.brand_string"] = "Intel(R) Xeon(R) CPU";
  EXPECT_EQ(ASI_CopyCPUKind(false), "Dual-Core Intel Xeon");
  hw_.strings["machdep.cpu.brand_string"] = "Intel(R) Core(TM)2 CPU";
  EXPECT_EQ(ASI_CopyCPUKind(false), "Dual-Core Intel Xeon");  // once seen, stays
  hw_.integers["machdep.cpu.cores_per_package"] = 8;
  EXPECT_FALSE(ASI_CopyCPUKind(false));
}

TEST_F(AsiTest, HostTypeTableWhenNoFamilyIsKnown) {
  hw_.basic_info = platform::HostBasicInfo{18, 100, 2};
  EXPECT_EQ(ASI_CopyCPUKind(false), "PowerPC G5");
  EXPECT_EQ(ASI_CopyCPUKind(true), "PowerPC 970");
  hw_.basic_info = platform::HostBasicInfo{18, 55, 1};
  EXPECT_FALSE(ASI_CopyCPUKind(false));
  hw_.basic_info = platform::HostBasicInfo{7 | 0x01000000, 3, 4};  // a PC: no table knows it
  EXPECT_EQ(*get_computer_info().find_string("cpuKind"), "(unknown)");
  // ... so the processor's own description names it.
  hw_.strings["machdep.cpu.brand_string"] = "AMD EPYC 7443P 24-Core Processor";
  EXPECT_EQ(*get_computer_info().find_string("cpuKind"), "AMD EPYC 7443P 24-Core Processor");
  // A name from the tables still wins.
  hw_.basic_info = platform::HostBasicInfo{18, 10, 1};
  EXPECT_EQ(*get_computer_info().find_string("cpuKind"), "PowerPC G4");
}

TEST_F(AsiTest, CountsSpeedsAndMemoryDegradeToDefaults) {
  EXPECT_EQ(ASI_NumberOfCPUs(), 1);
  EXPECT_EQ(ASI_CPUSpeedInHz(), 0u);
  EXPECT_EQ(ASI_PhysicalMemorySize(), 0u);
  EXPECT_EQ(ASI_BusSpeedInHz(), 0u);
  hw_.integers["hw.packages"] = 2;
  hw_.integers["hw.cpufrequency"] = 2'000'000'000;
  hw_.integers["hw.memsize"] = 64ull << 30;
  EXPECT_EQ(ASI_NumberOfCPUs(), 2);
  EXPECT_EQ(ASI_CPUSpeedInHz(), 2'000'000'000u);
  hw_.integers["hw.cpufrequency_max"] = 6'000'000'000;  // clamped to 32 bits
  EXPECT_EQ(ASI_CPUSpeedInHz(), 4294967295u);
  hw_.integers["hw.cpufamily"] = 0xed76d8aa;  // PowerPC: processors from the host
  hw_.basic_info = platform::HostBasicInfo{18, 9, 4};
  EXPECT_EQ(ASI_NumberOfCPUs(), 4);
  plist::Dict info = get_computer_info();
  EXPECT_EQ(*info.find("memorySize"), plist::Value(uint64_t{64} << 30));
  EXPECT_EQ(info.size(), 6u);
}

TEST_F(AsiTest, ModelNamesFromTheSystemInformationTables) {
  testing::SandboxRoot root;
  EXPECT_EQ(ASI_CopyComputerModelName(false), "Unknown");  // no model identifier
  hw_.strings["hw.model"] = "Server9,9";
  EXPECT_EQ(ASI_CopyComputerModelName(true), "Server9,9");
  EXPECT_EQ(ASI_CopyComputerModelName(false), "Unknown");  // no tables installed
  // A platform that names the model itself fills in for the missing tables.
  hw_.strings["hw.model_display_name"] = "Server";
  EXPECT_EQ(ASI_CopyComputerModelName(false), "Server");
  EXPECT_EQ(ASI_CopyComputerModelName(true), "Server9,9");

  const std::string resources = "/System/Library/CoreServices/MarloSystemInfo.bundle/Contents/Resources";
  ASSERT_TRUE(platform::write_file_atomically(
      root.path(resources + "/MachineTypes.plist"),
      "<plist version=\"1.0\"><dict><key>Rack1,1</key><string>RackKey</string></dict></plist>"));
  ASSERT_TRUE(platform::write_file_atomically(
      root.path(resources + "/English.lproj/MarloSystemInfo.plist"),
      "<plist version=\"1.0\"><dict><key>RackKey</key><string>Rack Server</string></dict></plist>"));
  EXPECT_EQ(ASI_CopyComputerModelName(false), "Ordin");  // key "Server" has no translation
  hw_.strings["hw.model"] = "Rack1,1";
  EXPECT_EQ(ASI_CopyComputerModelName(false), "Rack Server");
  hw_.strings["hw.model"] = "12,34";
  EXPECT_EQ(ASI_CopyComputerModelName(false), "12,34");
}

}  // namespace
}  // namespace hubwarden
