#include "hubwardend/network.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace hubwardend {
namespace {

TEST(NetworkTest, DefaultRouteComesFromTheZeroRoute) {
  const std::string table =
      "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n"
      "eth1\t0000A8C0\t00000000\t0001\t0\t0\t0\t00FFFFFF\t0\t0\t0\n"
      "eth0\t00000000\t0100A8C0\t0003\t0\t0\t100\t00000000\t0\t0\t0\n"
      "wlan0\t00000000\t0101A8C0\t0003\t0\t0\t600\t00000000\t0\t0\t0\n";
  EXPECT_EQ(default_route_interface(table), "eth0");
  EXPECT_EQ(default_route_interface(table.substr(0, table.find("eth0"))), std::nullopt);
  EXPECT_EQ(default_route_interface(""), std::nullopt);
  EXPECT_EQ(default_route_interface("Iface\nbroken line\n"), std::nullopt);
}

// Runs against this machine's real interfaces: whatever they are, every
// entry has the documented shape.
TEST(NetworkTest, SnapshotEntriesHaveTheDocumentedShape) {
  LinuxNetwork network;
  for (bool complete : {false, true}) {
    plist::Array snapshot = network.get_interfaces_info(complete);
    int primaries = 0;
    for (const plist::Value& entry : snapshot) {
      const plist::Dict* d = entry.as_dict();
      ASSERT_NE(d, nullptr);
      ASSERT_EQ(d->size(), 5u);
      const char* keys[] = {"name", "family", "ipAddress", "isPrimaryIPv4Interface", "dnsName"};
      for (size_t i = 0; i < 5; ++i) EXPECT_EQ(d->at_index(i).first, keys[i]);
      ASSERT_NE(d->find_string("name"), nullptr);
      EXPECT_NE(*d->find_string("name"), "lo") << "loopback is left out";
      const std::string* family = d->find_string("family");
      ASSERT_NE(family, nullptr);
      EXPECT_TRUE(*family == "AF_INET" || *family == "AF_INET6") << *family;
      ASSERT_NE(d->find_string("ipAddress"), nullptr);
      EXPECT_FALSE(d->find_string("ipAddress")->empty());
      const bool* primary = d->find("isPrimaryIPv4Interface")->as_bool();
      ASSERT_NE(primary, nullptr);
      if (*primary) {
        ++primaries;
        EXPECT_EQ(*family, "AF_INET");
      }
      EXPECT_NE(d->find_string("dnsName"), nullptr);
    }
    EXPECT_LE(primaries, 1);
  }

  // The quick gathering reuses names the complete one found.
  plist::Array complete = network.get_interfaces_info(true);
  plist::Array quick = network.get_interfaces_info(false);
  if (complete.size() == quick.size()) {
    EXPECT_EQ(complete, quick);
  }
}

TEST(NetworkTest, HostNamesOfThisHostAndOfAddresses) {
  LinuxNetwork network;
  char host[256] = {};
  ASSERT_EQ(gethostname(host, sizeof host - 1), 0);
  std::vector<std::string> names = network.host_names_for_address(std::nullopt, 10.0);
  ASSERT_FALSE(names.empty());
  EXPECT_EQ(names.front(), host);
  for (size_t i = 1; i < names.size(); ++i) EXPECT_NE(names[i], names.front()) << "no repeats";

  EXPECT_TRUE(network.host_names_for_address(std::string("not an address"), 1.0).empty());
  EXPECT_TRUE(network.host_names_for_address(std::string(""), 1.0).empty());
  // A zero or nonsensical time-out answers at once, with whatever is known.
  network.host_names_for_address(std::string("127.0.0.1"), 0.0);
  network.host_names_for_address(std::string("::1"), -1.0);
  network.host_names_for_address(std::nullopt, 1e300);
}

}  // namespace
}  // namespace hubwardend
