#include "hubwardend/network.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include "platform/fake/fake_log.h"
#include "platform/registry.h"

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
    int primaries = 0;
    for (const plist::Value& entry : network.get_interfaces_info(complete)) {
      const plist::Dict* d = entry.as_dict();
      ASSERT_NE(d, nullptr);
      std::vector<std::string> keys;
      for (const auto& [key, value] : *d) keys.push_back(key);
      EXPECT_EQ(keys, (std::vector<std::string>{"name", "family", "ipAddress", "isPrimaryIPv4Interface", "dnsName"}));
      const std::string *name = d->find_string("name"), *family = d->find_string("family");
      const plist::Value* primary = d->find("isPrimaryIPv4Interface");
      ASSERT_TRUE(name && family && d->find_string("ipAddress") && d->find_string("dnsName") && primary &&
                  primary->as_bool());
      EXPECT_NE(*name, "lo") << "loopback is left out";
      EXPECT_TRUE(*family == "AF_INET" || *family == "AF_INET6") << *family;
      EXPECT_FALSE(d->find_string("ipAddress")->empty());
      if (*primary->as_bool()) {
        ++primaries;
        EXPECT_EQ(*family, "AF_INET");
      }
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

// A veth pair in a network namespace of the test's own thread, one end
// named with a byte that is not UTF-8.
TEST(NetworkTest, InterfacesWithNamesThatAreNotUtf8AreLeftOutAndLoggedOnce) {
  if (::geteuid() != 0) GTEST_SKIP() << "a network namespace needs root";
  platform::FakeLog log;
  platform::Log* previous = platform::slot<platform::Log>();
  platform::install<platform::Log>(&log);
  std::string route_file =
      (std::filesystem::temp_directory_path() / ("network-test-route-" + std::to_string(::getpid()))).string();
  std::ofstream(route_file) << "Iface\tDestination\tGateway\tFlags\tRefCnt\tUse\tMetric\tMask\n"
                               "vok\t00000000\t0100090A\t0003\t0\t0\t0\t00000000\n";

  std::string skip, error;
  std::vector<plist::Array> snapshots;
  std::thread([&] {
    if (::unshare(CLONE_NEWNET) != 0) {
      skip = std::string("cannot make a network namespace: ") + std::strerror(errno);
      return;
    }
    // The namespace's own sysctl tree: no IPv6 link-local addresses.
    std::ofstream("/proc/sys/net/ipv6/conf/default/disable_ipv6") << "1";
    if (std::system("ip link add vok type veth peer name \"$(printf 'v\\377')\" && "
                    "ip addr add 10.9.9.2/24 dev vok && ip addr add 10.9.9.1/24 dev \"$(printf 'v\\377')\" && "
                    "ip link set vok up && ip link set \"$(printf 'v\\377')\" up") != 0) {
      error = "ip could not make the veth pair";
      return;
    }
    LinuxNetwork network(route_file);
    for (int i = 0; i < 2; ++i) snapshots.push_back(network.get_interfaces_info(false));
  }).join();
  std::filesystem::remove(route_file);
  platform::install<platform::Log>(previous);
  if (!skip.empty()) GTEST_SKIP() << skip;
  ASSERT_EQ(error, "");

  for (const plist::Array& snapshot : snapshots) {
    ASSERT_EQ(snapshot.size(), 1u);
    const plist::Dict& only = *snapshot[0].as_dict();
    EXPECT_EQ(*only.find_string("name"), "vok");
    EXPECT_EQ(*only.find_string("ipAddress"), "10.9.9.2");
    EXPECT_EQ(*only.find("isPrimaryIPv4Interface"), plist::Value(true));
  }
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_TRUE(log.contains(platform::Priority::Error, "\"v\\xff\" out of the interface list"));
}

TEST(NetworkTest, HostNamesOfThisHostAndOfAddresses) {
  LinuxNetwork network;
  char host[256] = {};
  ASSERT_EQ(gethostname(host, sizeof host - 1), 0);
  std::vector<std::string> names = network.host_names_for_address(std::nullopt, 10.0);
  ASSERT_FALSE(names.empty());
  EXPECT_EQ(names.front(), host);
  for (size_t i = 1; i < names.size(); ++i) EXPECT_NE(names[i], names.front()) << "no repeats";

  for (const char* bad : {"not an address", ""}) EXPECT_TRUE(network.host_names_for_address(bad, 1.0).empty());
  // A zero or nonsensical time-out answers at once, with whatever is known.
  network.host_names_for_address(std::string("127.0.0.1"), 0.0);
  network.host_names_for_address(std::string("::1"), -1.0);
  network.host_names_for_address(std::nullopt, 1e300);
}

}  // namespace
}  // namespace hubwardend
