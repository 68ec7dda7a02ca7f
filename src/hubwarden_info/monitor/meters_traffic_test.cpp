// The network meter and the history sample against real traffic: a veth
// pair in a network namespace of the test's own, a known number of bytes
// sent across it, and the rates the Linux interface reader and the meter
// make of them. Nothing leaves the namespace, which dies with the test's
// thread.
#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <sched.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "monitor/history.h"
#include "monitor/meters.h"
#include "monitor/monitor_test_support.h"
#include "platform/file_util.h"
#include "platform/linux/metered_interfaces.h"
#include "request/operations.h"

extern char** environ;

namespace hubwarden {
namespace {

using plist::Dict;
using plist::Value;

constexpr int kFrames = 500;
constexpr size_t kFrameBytes = 1000;
constexpr uint64_t kSentBytes = kFrames * kFrameBytes;
constexpr double kSecondsBetweenReadings = 20;

// Runs a command to completion; false when it cannot start or fails.
bool run(std::vector<std::string> argv) {
  std::vector<char*> args;
  for (std::string& a : argv) args.push_back(a.data());
  args.push_back(nullptr);
  pid_t pid;
  if (::posix_spawnp(&pid, args[0], nullptr, nullptr, args.data(), environ) != 0) return false;
  int status = 0;
  if (::waitpid(pid, &status, 0) != pid) return false;
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool write_text(const std::string& path, const std::string& text) {
  FILE* f = std::fopen(path.c_str(), "w");
  if (!f) return false;
  bool ok = std::fputs(text.c_str(), f) >= 0;
  return std::fclose(f) == 0 && ok;
}

// Sends kFrames Ethernet frames of kFrameBytes each out of the interface,
// with an ether type set aside for local experiments so that no protocol
// on the far side answers.
bool send_frames(const std::string& interface) {
  int fd = ::socket(AF_PACKET, SOCK_RAW, 0);
  if (fd < 0) return false;
  sockaddr_ll to{};
  to.sll_family = AF_PACKET;
  to.sll_ifindex = static_cast<int>(::if_nametoindex(interface.c_str()));
  to.sll_halen = ETH_ALEN;
  std::memset(to.sll_addr, 0xff, ETH_ALEN);
  std::vector<unsigned char> frame(kFrameBytes, 0x5a);
  std::memset(frame.data(), 0xff, ETH_ALEN);                           // destination: broadcast
  std::memcpy(frame.data() + ETH_ALEN, "\x02\0\0\0\0\x01", ETH_ALEN);  // a local source address
  uint16_t type = htons(0x88b5);
  std::memcpy(frame.data() + 2 * ETH_ALEN, &type, sizeof type);
  bool ok = to.sll_ifindex != 0;
  for (int i = 0; ok && i < kFrames; ++i)
    ok = ::sendto(fd, frame.data(), frame.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to) ==
         static_cast<ssize_t>(frame.size());
  ::close(fd);
  return ok;
}

// Everything the namespace thread saw, checked on the test's thread.
struct Observed {
  std::string skip;   // why the namespace could not be made
  std::string error;  // a step that failed
  uint64_t index_a = 0, index_b = 0;
  std::vector<platform::InterfaceCounters> before, after;
  std::optional<Dict> first, second;
  plist::Array sample;
};

class NetworkMeterTrafficTest : public testing::MonitorTest {
 protected:
  // Runs on a thread of its own, because the namespaces it enters are the
  // thread's; they go away when it ends.
  void in_namespace(Observed* seen) {
    if (::unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) {
      seen->skip = std::string("cannot make a network namespace: ") + std::strerror(errno);
      return;
    }
    // The namespace's own sysfs, seen by this thread alone.
    std::string sys = root_.path("/meters-sys");
    std::filesystem::create_directories(sys);
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("sysfs", sys.c_str(), "sysfs", 0, nullptr) != 0) {
      seen->skip = std::string("cannot mount sysfs for the namespace: ") + std::strerror(errno);
      return;
    }
    struct Unmount {
      std::string path;
      ~Unmount() { ::umount2(path.c_str(), MNT_DETACH); }
    } unmount{sys};

    // No IPv6 neighbour discovery or router solicitations: the only bytes
    // on the pair are the test's.
    write_text("/proc/sys/net/ipv6/conf/default/disable_ipv6", "1");
    write_text("/proc/sys/net/ipv6/conf/all/disable_ipv6", "1");
    if (!run({"ip", "link", "add", "vethA", "type", "veth", "peer", "name", "vethB"}) ||
        !run({"ip", "link", "set", "vethA", "up"}) || !run({"ip", "link", "set", "vethB", "up"})) {
      seen->error = "ip could not make the veth pair";
      return;
    }
    seen->index_a = ::if_nametoindex("vethA");
    seen->index_b = ::if_nametoindex("vethB");
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    auto up = [&](const char* name) {
      return platform::read_file(sys + "/class/net/" + name + "/operstate").value_or("") == "up\n";
    };
    while (!(up("vethA") && up("vethB"))) {
      if (std::chrono::steady_clock::now() > deadline) {
        seen->error = "the veth pair did not come up";
        return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }

    // veth pairs are left out unless configured, as an administrator would.
    auto stats = platform::make_sysfs_interface_stats({"veth*"}, sys);
    testing::Installed<platform::InterfaceStats> installed(stats.get());
    if (!stats->read(&seen->before)) seen->error = "no interface list";
    seen->first = get_network_traffic(&context_);

    if (!send_frames("vethA")) {
      seen->error = std::string("sending failed: ") + std::strerror(errno);
      return;
    }
    stats->read(&seen->after);
    advance(kSecondsBetweenReadings);
    seen->second = get_network_traffic(&context_);
    // The sample reads the meters through their cache, as an idle pass
    // right after a request would.
    if (update_history_data(&context_) != nullptr || history_.stored.empty()) {
      seen->error = "no history sample";
      return;
    }
    seen->sample = history_.stored.back().sample;
  }

  Dict context_;
};

const platform::InterfaceCounters* find(const std::vector<platform::InterfaceCounters>& rows,
                                        const std::string& system_name) {
  for (const platform::InterfaceCounters& r : rows)
    if (r.system_name == system_name) return &r;
  return nullptr;
}

TEST_F(NetworkMeterTrafficTest, RatesAndHistoryCarryTheBytesSentOverAVethPair) {
  if (::geteuid() != 0) GTEST_SKIP() << "a network namespace needs root";
  Observed seen;
  std::thread([&] { in_namespace(&seen); }).join();
  if (!seen.skip.empty()) GTEST_SKIP() << seen.skip;
  ASSERT_EQ(seen.error, "");

  // The pair, and nothing else, is metered; the lower index is en0.
  ASSERT_EQ(seen.before.size(), 2u);
  std::string name_a = seen.index_a < seen.index_b ? "en0" : "en1";
  std::string name_b = seen.index_a < seen.index_b ? "en1" : "en0";
  const platform::InterfaceCounters* a0 = find(seen.before, "vethA");
  const platform::InterfaceCounters* a1 = find(seen.after, "vethA");
  const platform::InterfaceCounters* b0 = find(seen.before, "vethB");
  const platform::InterfaceCounters* b1 = find(seen.after, "vethB");
  ASSERT_TRUE(a0 && a1 && b0 && b1);
  EXPECT_EQ(a0->name, name_a);
  EXPECT_EQ(b0->name, name_b);
  EXPECT_EQ(a1->output_bytes - a0->output_bytes, kSentBytes);
  EXPECT_EQ(b1->input_bytes - b0->input_bytes, kSentBytes);
  EXPECT_EQ(a1->input_bytes, a0->input_bytes);
  EXPECT_EQ(b1->output_bytes, b0->output_bytes);

  // The first reading has nothing to compare with.
  ASSERT_TRUE(seen.first && seen.second);
  EXPECT_EQ(*seen.first->find("total_throughput"), Value(uint64_t{0}));
  EXPECT_EQ(testing::keys_of(*seen.first->find_dict("interfaces_array")), (std::vector<std::string>{"en0", "en1"}));

  const uint64_t rate = kSentBytes / static_cast<uint64_t>(kSecondsBetweenReadings);
  const Dict& interfaces = *seen.second->find_dict("interfaces_array");
  EXPECT_EQ(*interfaces.find_dict(name_a), (Dict{{"input", uint64_t{0}}, {"output", rate}, {"total", rate}}));
  EXPECT_EQ(*interfaces.find_dict(name_b), (Dict{{"input", rate}, {"output", uint64_t{0}}, {"total", rate}}));
  EXPECT_EQ(*seen.second->find("total_input"), Value(rate));
  EXPECT_EQ(*seen.second->find("total_output"), Value(rate));
  EXPECT_EQ(*seen.second->find("total_throughput"), Value(2 * rate));

  // v2, v5-v8, v15 and v16 of the sample.
  ASSERT_EQ(seen.sample.size(), kHistorySampleSize);
  EXPECT_EQ(seen.sample[1], Value(2 * rate));
  EXPECT_EQ(seen.sample[4], Value(rate));
  EXPECT_EQ(seen.sample[5], Value(rate));
  EXPECT_EQ(seen.sample[6], Value(""));
  EXPECT_EQ(seen.sample[7], Value(""));
  EXPECT_EQ(seen.sample[14], Value(rate));
  EXPECT_EQ(seen.sample[15], Value(rate));
}

}  // namespace
}  // namespace hubwarden
