// Notifications: one idle pass's disk state events (three volumes, the rule
// files present, events sent to a real datagram socket standing in for the
// event monitor), and a notification settings write that rewrites the
// three rule files, under a sandbox root.
#include <benchmark/benchmark.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <memory>
#include <string>

#include "bench_root.h"
#include "notify/notification_settings.h"
#include "platform/event_port.h"
#include "platform/fake/fake_log.h"
#include "platform/fake/fake_meters.h"
#include "platform/fake/fake_process_finder.h"
#include "platform/fake/fake_process_signals.h"
#include "platform/file_util.h"
#include "platform/linux/event_port_socket.h"
#include "platform/registry.h"
#include "platform/unique_fd.h"
#include "plist/codec.h"
#include "request/operations.h"
#include "settings/settings_file.h"

namespace {

using plist::Array;
using plist::Dict;

// A shipped-size rule file: the "Initialize" assignments and two rules.
std::string rule_file(const char* contacts) {
  Array actions{Dict{{"lvalue", "global:DiskFreeThreshold1"}, {"rvalue", "literal:10.00"}},
                Dict{{"lvalue", contacts}, {"rvalue", "literal:ops@example.org"}}};
  Array rules{Dict{{"rule_name", "Initialize"}, {"Active", "1"}, {"Actions", actions}}};
  for (const char* name : {"Notify", "Throttle"})
    rules.push_back(Dict{{"rule_name", name},
                         {"Active", "1"},
                         {"Criterion", "event_type == com.marlo.hubwarden_info.diskstate"},
                         {"Actions", Array{Dict{{"action", "mail"}, {"subject", "Disk space low on %volumeName%"}}}}});
  return plist::write_xml(rules);
}

platform::FakeVolume volume(const char* name, uint64_t total, uint64_t free) {
  platform::FakeVolume v;
  v.info.name = name;
  v.info.mount_point = std::string("/") + name;
  v.info.total_bytes = total;
  v.info.free_bytes = free;
  return v;
}

// Everything one pass needs: the root with the rule files, the monitor's
// socket, three volumes and the services that reach them.
class NotifyFixture {
 public:
  NotifyFixture() : monitor_(platform::make_socket_event_monitor()) {
    std::string dir = root_.dir();
    platform::write_file_atomically(dir + "/etc/sentryd.d/rules/DiskStatus.plist",
                                    rule_file("global:DiskNotificationContacts"));
    platform::write_file_atomically(dir + "/etc/sentryd.d/rules/SWUpdate.plist",
                                    rule_file("global:SWUpdateNotificationContacts"));
    platform::write_file_atomically(dir + "/etc/sentryd.d/rules/SentrydCertificateExpiring.plist",
                                    rule_file("global:CertificateExpirationNotificationContacts"));
    platform::make_directories(dir + "/run/hubwarden");
    std::string path = dir + platform::kEventMonitorSocket;
    listener_.reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un un{};
    un.sun_family = AF_UNIX;
    ::memcpy(un.sun_path, path.data(), std::min(path.size(), sizeof(un.sun_path) - 1));
    ::bind(listener_.get(), reinterpret_cast<const sockaddr*>(&un), sizeof(un));

    volumes_.volumes = {volume("System", 500000000000, 123456789012), volume("Data", 4000000000000, 2500000000000),
                        volume("Backup", 2000000000000, 100000000000)};
    platform::testing::install<platform::Log>(&log_);
    platform::testing::install<platform::Volumes>(&volumes_);
    platform::testing::install<platform::EventMonitor>(monitor_.get());
    platform::testing::install<platform::ProcessFinder>(&finder_);
    platform::testing::install<platform::ProcessSignals>(&signals_);
    hubwarden::create_settings_lock();
  }
  ~NotifyFixture() {
    platform::testing::install<platform::ProcessSignals>(nullptr);
    platform::testing::install<platform::ProcessFinder>(nullptr);
    platform::testing::install<platform::EventMonitor>(nullptr);
    platform::testing::install<platform::Volumes>(nullptr);
    platform::testing::install<platform::Log>(nullptr);
  }

  // Reads what the monitor would; returns the number of events.
  int drain() {
    char buffer[platform::kMaxEventBytes];
    int n = 0;
    while (::recv(listener_.get(), buffer, sizeof(buffer), MSG_DONTWAIT) > 0) ++n;
    return n;
  }

 private:
  bench::BenchRoot root_;
  platform::UniqueFd listener_;
  platform::FakeLog log_;
  platform::FakeVolumes volumes_;
  std::unique_ptr<platform::EventMonitor> monitor_;
  platform::FakeProcessFinder finder_;
  platform::FakeProcessSignals signals_;
};

void BM_IdlePassDiskEvents(benchmark::State& state) {
  NotifyFixture fixture;
  int64_t events = 0;
  // Tick 100 falls on neither the scan nor the announcement position, as
  // 718 of every 720 passes do.
  for (auto _ : state) {
    hubwarden::periodic_notifications_handler(nullptr, 100);
    events += fixture.drain();
  }
  if (events != 3 * state.iterations()) state.SkipWithError("events were lost");
  state.counters["events"] = benchmark::Counter(static_cast<double>(events), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_IdlePassDiskEvents)->Unit(benchmark::kMicrosecond);

void BM_WriteNotificationSettings(benchmark::State& state) {
  NotifyFixture fixture;
  Dict who{{"email", "ops@example.org"}};
  Dict request{{"notifications_settings",
                Dict{{"diskFull", Dict{{"active", true}, {"freeSpaceThreshold", 10}, {"who", Array{who}}}},
                     {"suAvailable", Dict{{"active", true}, {"who", Array{who}}}},
                     {"certificateExpiration", Dict{{"active", false}, {"who", Array()}}}}}};
  for (auto _ : state) {
    hubwarden::ReplySlot reply;
    hubwarden::write_notifications_settings(&request, reply, nullptr);
    benchmark::DoNotOptimize(reply);
  }
}
BENCHMARK(BM_WriteNotificationSettings)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
