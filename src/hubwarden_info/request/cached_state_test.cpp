#include "request/cached_state.h"

#include <gtest/gtest.h>

#include "platform/fake/fake_hardware.h"
#include "platform/fake/fake_host_info.h"
#include "platform/fake/fake_sysconfig.h"
#include "platform/meters.h"
#include "platform/sysconfig.h"
#include "request/globals.h"
#include "request/module.h"
#include "request/spine_test_support.h"

namespace hubwarden {
namespace {

using plist::Array;
using plist::Dict;
using plist::Value;
using testing::Installed;

class StubNetwork : public platform::Network {
 public:
  std::vector<bool> complete_asked;
  std::vector<std::string> names{"fallback.example.org"};
  plist::Array get_interfaces_info(bool complete) override {
    complete_asked.push_back(complete);
    return {Dict{{"name", "en0"}, {"dnsName", complete ? "fresh" : "quick"}}};
  }
  std::vector<std::string> host_names_for_address(const std::optional<std::string>&, double) override { return names; }
};

plist::Data bytes(const std::string& s) { return plist::Data(s.begin(), s.end()); }

class CachedStateTest : public ::testing::Test {
 protected:
  CachedStateTest() : h_(&host_), hw_(&hardware_), n_(&network_), c_(&config_) {
    reset_module_globals_for_testing();
    host_.system.reset();
    host_.release.reset();
  }
  ~CachedStateTest() override { reset_module_globals_for_testing(); }

  Dict info() {
    Dict context;
    update_cached_state(&context);
    return *context.find_dict("info");
  }

  platform::FakeHostInfo host_;
  platform::FakeHardware hardware_;
  StubNetwork network_;
  platform::FakeSystemConfiguration config_;
  Installed<platform::HostInfo> h_;
  Installed<platform::Hardware> hw_;
  Installed<platform::Network> n_;
  Installed<platform::SystemConfiguration> c_;
};

TEST_F(CachedStateTest, InfoHasSeventeenKeysInOrderWithBlanksForTheMissing) {
  Dict context;
  EXPECT_EQ(update_cached_state(&context), nullptr);
  EXPECT_TRUE(context.find("contextDirty")->number_is_true());
  const Dict& info = *context.find_dict("info");
  std::vector<std::string> keys;
  for (const auto& [k, v] : info) keys.push_back(k);
  EXPECT_EQ(keys,
            (std::vector<std::string>{"state", "computerInfo", "systemVersion", "version", "serverVersion",
                                      "kernelVersion", "hwSerialNumber", "bootVolume", "computerName", "localcastName",
                                      "defaultZone", "hostName", "interfaceInfosArray", "bootTime",
                                      "hasMissingKerberizedServices", "logPaths", "readWriteSettingsVersion"}));
  EXPECT_EQ(*info.find_string("state"), "UNKNOWN");
  EXPECT_EQ(*info.find_string("systemVersion"), "");
  EXPECT_EQ(*info.find_string("kernelVersion"), "Linux ");
  EXPECT_EQ(*info.find_string("hwSerialNumber"), "");
  EXPECT_EQ(*info.find_string("defaultZone"), "");
  EXPECT_EQ(*info.find_string("bootTime"), "");  // no "bootTime" in the context
  EXPECT_EQ(*info.find_string("computerName"), "Front Desk");
  EXPECT_EQ(*info.find_string("hostName"), "server.example.com");
  EXPECT_EQ(info.find_dict("logPaths")->size(), 4u);
  EXPECT_EQ(*info.find("readWriteSettingsVersion"), Value(1));
  // Outside the daemon the gathering is the complete one, and no refresh starts.
  EXPECT_EQ(network_.complete_asked, std::vector<bool>{true});
  // A null context builds the state but has nowhere to keep it.
  EXPECT_EQ(update_cached_state(nullptr), nullptr);
  EXPECT_EQ(network_.complete_asked.size(), 2u);
}

TEST_F(CachedStateTest, VersionTextsAndFallbacks) {
  host_.system = Dict{{"ProductName", "Debian GNU/Linux"}, {"ProductVersion", "12"}, {"ProductBuildVersion", "b7"}};
  host_.server = Dict{{"ProductName", "Hubwarden"}, {"ProductVersion", "3.1 Server Edition"}};
  host_.name.reset();
  config_.reachable = false;
  Dict i = info();
  EXPECT_EQ(*i.find_string("systemVersion"), "Debian GNU/Linux 12 (Build b7)");
  EXPECT_EQ(*i.find_string("version"), "Hubwarden 3.1");
  EXPECT_EQ(*i.find_string("serverVersion"), "Hubwarden 3.1");
  EXPECT_EQ(*i.find_string("hostName"), "fallback.example.org");
  EXPECT_EQ(*i.find_string("computerName"), "");
  EXPECT_EQ(*i.find_string("localcastName"), "");

  host_.server = Dict{{"ProductName", "Hubwarden"}, {"ProductVersion", "3.1"}, {"ProductBuildVersion", "9A1"}};
  EXPECT_EQ(*info().find_string("version"), "Hubwarden 3.1 (Build 9A1)");
}

TEST_F(CachedStateTest, BootTimeIsWrittenAsADateText) {
  Dict context{{"bootTime", 1.7e9}};
  update_cached_state(&context);
  EXPECT_EQ(*context.find_dict("info")->find_string("bootTime"), "2023-11-14 22:13:20 +0000");
  context.set("bootTime", 1e300);  // absurd values give "", not undefined behaviour
  update_cached_state(&context);
  EXPECT_EQ(*context.find_dict("info")->find_string("bootTime"), "");
}

TEST_F(CachedStateTest, SerialNumberLayoutsAndLastDeviceWins) {
  // Without '-': 8 bytes from offset 13, then 3 from offset 0.
  std::string plain = std::string("XYZ") + std::string(10, '\0') + "ABCDEFGH";
  hardware_.devices["IOPlatformExpertDevice"] = {Dict{{"serial-number", bytes(plain)}}};
  EXPECT_EQ(get_hardware_serial_number(), "ABCDEFGHXYZ");

  // With '-': 8 bytes from offset 12, then 11 from offset 0.
  std::string dashed = std::string("0123-567890") + std::string(1, '\0') + "abcdefgh";
  hardware_.devices["IOPlatformExpertDevice"] = {Dict{{"serial-number", bytes(dashed)}}};
  EXPECT_EQ(get_hardware_serial_number(), "abcdefgh0123-567890");

  // A device with nothing at the offsets gives no answer; a later one wins.
  hardware_.devices["IOPlatformExpertDevice"] = {Dict{{"serial-number", bytes("")}},
                                                 Dict{{"serial-number", "not data"}}};
  EXPECT_FALSE(get_hardware_serial_number());
  hardware_.devices["IOPlatformExpertDevice"] = {Dict{{"serial-number", bytes(plain)}},
                                                 Dict{{"serial-number", bytes(std::string(13, '\0') + "LASTONE1")}}};
  EXPECT_EQ(get_hardware_serial_number(), "LASTONE1");
}

}  // namespace
}  // namespace hubwarden
