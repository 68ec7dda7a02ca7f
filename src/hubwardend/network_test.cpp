#include "hubwardend/network.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
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
      EXPECT_EQ(keys, (std::vector<std::string>{"name", "family", "ipAddress", "isPrimaryIPv4Interface", "dnsName",
                                                "hardwareAddress"}));
      const std::string *name = d->find_string("name"), *family = d->find_string("family");
      const plist::Value* primary = d->find("isPrimaryIPv4Interface");
      ASSERT_TRUE(name && family && d->find_string("ipAddress") && d->find_string("dnsName") && primary &&
                  primary->as_bool());
      EXPECT_NE(*name, "lo") << "loopback is left out";
      EXPECT_TRUE(*family == "AF_INET" || *family == "AF_INET6") << *family;
      EXPECT_FALSE(d->find_string("ipAddress")->empty());
      const std::string* mac = d->find_string("hardwareAddress");
      ASSERT_TRUE(mac);
      EXPECT_TRUE(mac->empty() || mac->find(':') != std::string::npos) << *mac;
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
  platform::testing::ScopedService<platform::Log> installed_log(&log);
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

// A resolver that hangs until the test lets it go, counting the lookups
// that run at once. Shared, since lookups outlive the network that started
// them when they hang.
struct HangingResolver {
  std::mutex mu;
  std::condition_variable changed;
  bool released = false;
  int running = 0;
  int most_at_once = 0;
  int calls = 0;

  std::vector<std::string> lookup(const std::optional<std::string>& address) {
    std::unique_lock<std::mutex> lock(mu);
    ++calls;
    most_at_once = std::max(most_at_once, ++running);
    changed.notify_all();
    changed.wait_for(lock, std::chrono::seconds(30), [&] { return released; });
    --running;
    changed.notify_all();
    return {address ? "name-of-" + *address : std::string("this-host")};
  }
  void release() {
    std::lock_guard<std::mutex> lock(mu);
    released = true;
    changed.notify_all();
  }
  bool wait_until(const std::function<bool()>& done) {
    std::unique_lock<std::mutex> lock(mu);
    return changed.wait_for(lock, std::chrono::seconds(10), done);
  }
};

NetworkOptions options_with(const std::shared_ptr<HangingResolver>& resolver, bool long_running) {
  NetworkOptions options;
  options.answer_from_cache = long_running;
  options.lookup_deadline = std::chrono::milliseconds(200);
  options.max_queued_lookups = 8;
  options.lookup = [resolver](const std::optional<std::string>& address) { return resolver->lookup(address); };
  return options;
}

TEST(NetworkTest, HangingResolverHoldsNoCallerAndAtMostThePoolsThreads) {
  auto resolver = std::make_shared<HangingResolver>();
  LinuxNetwork network(options_with(resolver, /*long_running=*/true));

  // The daemon answers from the cache at once, however many lookups hang.
  auto started = std::chrono::steady_clock::now();
  for (int i = 0; i < 100; ++i)
    EXPECT_TRUE(network.host_names_for_address("10.0.0." + std::to_string(i), 10.0).empty());
  EXPECT_TRUE(network.host_names_for_address(std::nullopt, 10.0).empty());
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(5));
  ASSERT_TRUE(resolver->wait_until([&] { return resolver->running == 4; }));
  {
    std::lock_guard<std::mutex> lock(resolver->mu);
    EXPECT_LE(resolver->most_at_once, 4) << "lookups beyond the pool's threads started";
  }

  // Once the resolver answers, the answers come from the cache; what could
  // not start before its deadline was dropped, not run late.
  resolver->release();
  ASSERT_TRUE(resolver->wait_until([&] { return resolver->running == 0; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  {
    std::lock_guard<std::mutex> lock(resolver->mu);
    EXPECT_LE(resolver->calls, 4 + 8) << "lookups past their deadline ran anyway";
  }
  EXPECT_EQ(network.host_names_for_address("10.0.0.0", 10.0), std::vector<std::string>{"name-of-10.0.0.0"});
  std::vector<std::string> self;
  for (int i = 0; i < 50 && self.empty(); ++i) {
    self = network.host_names_for_address(std::nullopt, 10.0);
    if (self.empty()) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  EXPECT_EQ(self, std::vector<std::string>{"this-host"}) << "a dropped lookup is asked for again";
}

TEST(NetworkTest, OneShotHostWaitsForAHangingResolverOnlyUntilTheDeadline) {
  auto resolver = std::make_shared<HangingResolver>();
  {
    LinuxNetwork network(options_with(resolver, /*long_running=*/false));
    auto started = std::chrono::steady_clock::now();
    EXPECT_TRUE(network.host_names_for_address("192.0.2.1", 0.2).empty());
    network.get_interfaces_info(true);
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(5));
    resolver->release();
    ASSERT_TRUE(resolver->wait_until([&] { return resolver->running == 0; }));
    EXPECT_EQ(network.host_names_for_address("192.0.2.1", 5.0), std::vector<std::string>{"name-of-192.0.2.1"});
  }
  // The network is gone; a lookup still queued or running finishes against
  // what it shares, never against freed memory (the sanitizers watch).
  {
    std::lock_guard<std::mutex> lock(resolver->mu);
    resolver->released = false;
  }
  {
    LinuxNetwork network(options_with(resolver, /*long_running=*/true));
    network.host_names_for_address("192.0.2.2", 1.0);
    ASSERT_TRUE(resolver->wait_until([&] { return resolver->running == 1; }));
  }
  resolver->release();
  ASSERT_TRUE(resolver->wait_until([&] { return resolver->running == 0; }));
}

}  // namespace
}  // namespace hubwardend
