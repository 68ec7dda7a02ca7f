// DNS-SD advertising through the fake advertiser: what is published, when
// it is replaced, and what the waiting-for-setup record says.
#include "access/advertising.h"

#include <gtest/gtest.h>

#include "access/zeroconf_registrar.h"
#include "notify/notification_watcher.h"
#include "platform/fake/fake_advertiser.h"
#include "platform/fake/fake_host_info.h"
#include "platform/file_util.h"
#include "request/idle_driver.h"
#include "testing/settings_doubles.h"

namespace hubwarden {
namespace {

using platform::FakeAdvertiser;
using platform::TxtEntry;
using platform::TxtRecord;
using Kind = FakeAdvertiser::Event::Kind;

class FakeNetwork : public platform::Network {
 public:
  plist::Array interfaces;
  std::vector<std::string> names;
  std::vector<std::optional<std::string>> asked;

  plist::Array get_interfaces_info(bool) override { return interfaces; }
  std::vector<std::string> host_names_for_address(const std::optional<std::string>& address, double) override {
    asked.push_back(address);
    return names;
  }
  void set_primary(const std::string& ip, const std::string& mac) {
    interfaces = {Dict{{"name", "eth1"},
                       {"family", "AF_INET"},
                       {"ipAddress", "10.1.1.9"},
                       {"isPrimaryIPv4Interface", false},
                       {"dnsName", ""},
                       {"hardwareAddress", "aa:aa:aa:aa:aa:aa"}},
                  Dict{{"name", "eth0"},
                       {"family", "AF_INET"},
                       {"ipAddress", ip},
                       {"isPrimaryIPv4Interface", true},
                       {"dnsName", ""},
                       {"hardwareAddress", mac}}};
  }
};

std::string txt_value(const TxtRecord& txt, const std::string& key) {
  for (const TxtEntry& e : txt)
    if (e.key == key) return e.value;
  return "<absent>";
}

std::vector<std::string> txt_keys(const TxtRecord& txt) {
  std::vector<std::string> keys;
  for (const TxtEntry& e : txt) keys.push_back(e.key);
  return keys;
}

class AdvertisingTest : public ::testing::Test {
 protected:
  AdvertisingTest() {
    clear_zeroconf_registrars_for_testing();
    network.set_primary("192.168.7.20", "52:54:00:12:34:56");
    network.names = {"server.example.org"};
  }
  ~AdvertisingTest() override { clear_zeroconf_registrars_for_testing(); }

  void mark_setup_done() { ASSERT_TRUE(platform::write_file_atomically(world.path(kSetupDoneMarker), "")); }
  void post_set_state() { platform::default_center().post({kSetStateNotification, std::nullopt, {}}); }

  testing::SettingsWorld world;
  FakeAdvertiser advertiser;
  FakeNetwork network;
  platform::FakeHostInfo host;
  testing::Installed<platform::Advertiser> advertiser_in{&advertiser};
  testing::Installed<platform::Network> network_in{&network};
  testing::Installed<platform::HostInfo> host_in{&host};
};

TEST_F(AdvertisingTest, ConfiguredRecordIsPublishedOnceAndReplacedOldFirst) {
  world.make_services_ready();
  create_auth_string();
  world.modules.set_state("hubwarden_dns", "RUNNING");

  register_services_with_zeroconf(false, nullptr);
  register_services_with_zeroconf(false, nullptr);
  ASSERT_EQ(advertiser.publish_calls(), 1u) << "an unchanged trigger stays off the network";
  FakeAdvertiser::Event first = advertiser.events().at(0);
  EXPECT_EQ(first.type, "_vantor._tcp");
  EXPECT_EQ(first.port, 311);
  ASSERT_TRUE(first.txt);
  EXPECT_EQ(txt_keys(*first.txt), (std::vector<std::string>{"DNS", "authData"}));
  EXPECT_EQ(txt_value(*first.txt, "authData"), *auth_string());

  world.modules.set_state("hubwarden_mail", "RUNNING");
  register_services_with_zeroconf(false, nullptr);
  register_services_with_zeroconf(true, nullptr);
  std::vector<FakeAdvertiser::Event> events = advertiser.events();
  ASSERT_EQ(events.size(), 5u);
  EXPECT_EQ(events[1].kind, Kind::Withdraw);
  EXPECT_EQ(events[1].record, first.record);
  EXPECT_EQ(events[2].kind, Kind::Publish);
  EXPECT_EQ(txt_keys(*events[2].txt), (std::vector<std::string>{"DNS", "Mail", "authData"}));
  EXPECT_EQ(events[3].kind, Kind::Withdraw);
  EXPECT_EQ(txt_value(*events[4].txt, "autoConfigIgnore"), "1");
  ASSERT_EQ(advertiser.live().size(), 1u);
  ASSERT_EQ(configured_server_registrar(false)->existingRegistrations().size(), 1u);
}

TEST_F(AdvertisingTest, SetStateBeforeSetupAdvertisesOnlyTheWaitingRecordAndTheMarkerFlipsIt) {
  register_service_state_watcher();
  register_service_state_watcher();  // registering twice must not double the reaction
  world.make_services_ready();
  world.modules.set_state("hubwarden_web", "RUNNING");

  post_set_state();
  std::vector<FakeAdvertiser::Event> live = advertiser.live();
  ASSERT_EQ(live.size(), 1u);
  EXPECT_EQ(live[0].type, "_svr-unconfig._tcp");
  EXPECT_EQ(advertiser.publish_calls(), 1u);
  // Running services were marked configured by the watcher.
  std::optional<Value> config = read_key_from_settings_file("ServiceConfig");
  ASSERT_TRUE(config && config->as_dict());

  mark_setup_done();
  post_set_state();
  std::vector<FakeAdvertiser::Event> events = advertiser.events();
  ASSERT_EQ(events.size(), 3u);
  EXPECT_EQ(events[1].kind, Kind::Withdraw);
  EXPECT_EQ(events[1].type, "_svr-unconfig._tcp");
  EXPECT_EQ(events[2].kind, Kind::Publish);
  EXPECT_EQ(events[2].type, "_vantor._tcp");
  EXPECT_EQ(txt_value(*events[2].txt, "Web"), "1");

  // Suppressed by hand: the configured record stays as it was, untouched.
  update_keys_in_settings_file(Dict{{"noVantorZeroconfReg", true}});
  world.modules.set_state("hubwarden_mail", "RUNNING");
  post_set_state();
  EXPECT_EQ(advertiser.events().size(), 3u);
}

TEST_F(AdvertisingTest, WaitingForSetupRecordDescribesTheMachineAndNeedsARoutableAddress) {
  register_server_waiting_for_setup_with_zeroconf(nullptr);
  ASSERT_EQ(advertiser.live().size(), 1u);
  const TxtRecord txt = *advertiser.live()[0].txt;
  EXPECT_EQ(txt, (TxtRecord{{"hostname", "server.example.org"},
                            {"modelname", "Unknown"},
                            {"ipaddress", "192.168.7.20"},
                            {"macaddress", "52:54:00:12:34:56"},
                            {"productname", "Debian GNU/Linux"},
                            {"productversion", "12"}}));
  ASSERT_FALSE(network.asked.empty());
  EXPECT_EQ(network.asked.back(), "192.168.7.20") << "the names of the primary address";

  // A link-local address withdraws the record and publishes none; the
  // name lookup is not even tried.
  network.set_primary("169.254.3.7", "52:54:00:12:34:56");
  network.asked.clear();
  register_server_waiting_for_setup_with_zeroconf(nullptr);
  EXPECT_TRUE(advertiser.live().empty());
  EXPECT_TRUE(network.asked.empty());
  register_server_waiting_for_setup_with_zeroconf(nullptr);
  EXPECT_EQ(advertiser.publish_calls(), 1u);

  // No primary service at all, the same.
  network.interfaces.clear();
  EXPECT_FALSE(build_waiting_for_setup_dict(nullptr));

  // No names and no hardware address: an empty host name, and the record
  // ends before "macaddress".
  network.set_primary("10.77.0.1", "");
  network.names = {"localhost", "server"};
  std::optional<Dict> dict = build_waiting_for_setup_dict(nullptr);
  ASSERT_TRUE(dict);
  EXPECT_EQ(*dict, (Dict{{"hostname", ""}, {"modelname", "Unknown"}, {"ipaddress", "10.77.0.1"}}));
  host.system.reset();
  network.set_primary("10.77.0.1", "52:54:00:12:34:56");
  EXPECT_EQ(build_waiting_for_setup_dict(nullptr)->size(), 4u);

  // A missing model name cuts everything behind it.
  MachineDescription machine{"h.example.org", std::nullopt, "10.0.0.2", "52:54:00:00:00:01", "Debian", "12"};
  EXPECT_EQ(waiting_for_setup_dict(machine), (Dict{{"hostname", "h.example.org"}}));
}

TEST(ZeroconfHostNameTest, FirstNameOutsideLocalAndPrivateWins) {
  struct Case {
    std::vector<std::string> names;
    std::string chosen;
  } cases[] = {
      {{"myhost.local", "myhost.example.org"}, "myhost.example.org"},
      {{"localhost", "myhost"}, ""},
      {{}, ""},
      {{"a.example.org", "b.example.org"}, "a.example.org"},
      {{"a.example.org", "b.local"}, "a.example.org"},
      {{"a.local", "b.private", "c.local"}, "c.local"},
      {{"a.private", "b.example.org", "c.example.com"}, "b.example.org"},
      {{"localhost", "localhost.localdomain"}, "localhost.localdomain"},
      {{".local"}, ".local"},
  };
  for (const Case& c : cases) EXPECT_EQ(choose_zeroconf_host_name(c.names), c.chosen) << c.names.size();
}

TEST_F(AdvertisingTest, TxtEntriesThatCannotBeSentAreDroppedAndLogged) {
  std::string fits(255 - 2, 'v');  // "k=" plus this is exactly 255 bytes
  Dict txt{{"first", "1"},
           {"k", fits},
           {"long", std::string(300, 'x')},
           {"a=b", "1"},
           {"", "1"},
           {"list", plist::Array{"x"}},
           {"blob", plist::Data{0, 1, 2}},
           {"count", 7},
           {"last", "z"}};
  register_with_zeroconf_details("_test._tcp", 4000, txt);
  ASSERT_EQ(advertiser.live().size(), 1u);
  EXPECT_EQ(advertiser.live()[0].port, 4000);
  EXPECT_EQ(
      *advertiser.live()[0].txt,
      (TxtRecord{{"first", "1"}, {"k", fits}, {"blob", std::string("\0\1\2", 3)}, {"count", "7"}, {"last", "z"}}));
  EXPECT_TRUE(world.log.contains(platform::Priority::Error, "\"long\" left out"));
  EXPECT_TRUE(world.log.contains(platform::Priority::Error, "\"a=b\" left out"));
  EXPECT_TRUE(world.log.contains(platform::Priority::Error, "\"list\" left out"));

  register_with_zeroconf("_plain._tcp");
  register_with_zeroconf("_plain._tcp");
  EXPECT_EQ(advertiser.publish_calls(), 2u);
  EXPECT_FALSE(advertiser.live()[1].txt) << "no TXT record at all, not an empty one";
}

TEST_F(AdvertisingTest, RejectedPublicationIsLoggedAndNotRetriedUntilTheDataChanges) {
  advertiser.fail_publications("name conflict");
  register_server_waiting_for_setup_with_zeroconf(nullptr);
  EXPECT_EQ(testing::lines_at(world.log, platform::Priority::Error),
            (std::vector<std::string>{"hubwarden_info: failed to publish: name conflict"}));
  advertiser.fail_publications(std::nullopt);
  register_server_waiting_for_setup_with_zeroconf(nullptr);
  EXPECT_EQ(advertiser.publish_calls(), 1u);
  network.names = {"other.example.org"};
  register_server_waiting_for_setup_with_zeroconf(nullptr);
  EXPECT_EQ(advertiser.publish_calls(), 2u);
  EXPECT_EQ(advertiser.live().size(), 1u);
}

}  // namespace
}  // namespace hubwarden
