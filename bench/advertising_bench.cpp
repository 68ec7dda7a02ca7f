// The advertising decision an idle pass makes when nothing has changed: 13
// of the 26 service modules running behind an in-memory module manager,
// the records already published once, and the decision taken again.
//
// The advertiser is the Avahi one on a real run loop (the daemon's event
// loop on a thread of its own), so the counter "avahi_calls" counts real
// calls into Avahi made during the timed passes; "publishes" counts what
// reached the advertiser. Both must stay 0: an unchanged pass costs no
// network traffic. The system bus is pointed at a socket that does not
// exist, so nothing reaches the machine's own Avahi; the advertiser then
// retries the bus every few seconds, which the short timed runs do not
// reach.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <future>
#include <thread>

#include "access/advertising.h"
#include "access/zeroconf_registrar.h"
#include "bench_root.h"
#include "hubwardend/serve/event_loop.h"
#include "platform/fake/fake_host_info.h"
#include "platform/linux/avahi_advertiser.h"
#include "request/globals.h"
#include "testing/settings_doubles.h"

namespace {

using hubwarden::Dict;

class CountingAdvertiser : public platform::Advertiser {
 public:
  explicit CountingAdvertiser(platform::Advertiser* real) : real_(real) {}
  std::unique_ptr<platform::PublishedRecord> publish(const std::string& type, uint16_t port,
                                                     const std::optional<platform::TxtRecord>& txt,
                                                     FailureHandler handler) override {
    ++publishes;
    return real_->publish(type, port, txt, std::move(handler));
  }
  std::atomic<uint64_t> publishes{0};

 private:
  platform::Advertiser* real_;
};

class QuietNetwork : public platform::Network {
 public:
  plist::Array get_interfaces_info(bool) override {
    return {Dict{{"name", "eth0"},
                 {"family", "AF_INET"},
                 {"ipAddress", "10.77.0.1"},
                 {"isPrimaryIPv4Interface", true},
                 {"dnsName", ""},
                 {"hardwareAddress", "52:54:00:12:34:56"}}};
  }
  std::vector<std::string> host_names_for_address(const std::optional<std::string>&, double) override {
    return {"server.local", "server.example.org"};
  }
};

// The daemon's event loop, running on its own thread while this lives.
class LoopThread {
 public:
  LoopThread() {
    std::promise<hubwardend::serve::EventLoop*> made;
    auto future = made.get_future();
    thread_ = std::thread([&made] {
      std::string error;
      std::unique_ptr<hubwardend::serve::EventLoop> loop = hubwardend::serve::EventLoop::create(&error);
      made.set_value(loop.get());
      if (loop) loop->run();
    });
    loop_ = future.get();
  }
  ~LoopThread() {
    if (loop_) loop_->exit(0);
    thread_.join();
  }
  platform::RunLoop* loop() const { return loop_; }
  // Returns once the loop has run everything posted before.
  void settle() {
    std::promise<void> done;
    if (loop_ && loop_->post([&done] { done.set_value(); })) done.get_future().wait();
  }

 private:
  std::thread thread_;
  hubwardend::serve::EventLoop* loop_ = nullptr;
};

template <bool kConfigured>
void BM_UnchangedIdleAdvertising(benchmark::State& state) {
  hubwarden::testing::SettingsWorld world;
  QuietNetwork network;
  platform::FakeHostInfo host;
  hubwarden::testing::Installed<platform::Network> network_in(&network);
  hubwarden::testing::Installed<platform::HostInfo> host_in(&host);
  world.modules.set_record_calls(false);
  world.make_services_ready();
  hubwarden::create_auth_string();
  int n = 0;
  for (const auto& [module, client] : *hubwarden::gServerToClientMapping())
    if (n++ % 2 == 0) world.modules.set_state(module, "RUNNING");

  bench::ScratchDir scratch;
  ::setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + scratch.dir() + "/no_bus").c_str(), 1);
  LoopThread loop;
  std::unique_ptr<platform::Advertiser> avahi = platform::make_avahi_advertiser(loop.loop());
  CountingAdvertiser advertiser(avahi.get());
  hubwarden::testing::Installed<platform::Advertiser> advertiser_in(&advertiser);

  auto pass = [] {
    if (kConfigured)
      hubwarden::register_services_with_zeroconf(false, nullptr);
    else
      hubwarden::register_server_waiting_for_setup_with_zeroconf(nullptr);
  };
  pass();  // the first pass publishes
  loop.settle();
  uint64_t publishes_before = advertiser.publishes;
  uint64_t avahi_before = platform::avahi_call_count();
  for (auto _ : state) pass();
  state.counters["publishes"] = static_cast<double>(advertiser.publishes - publishes_before);
  state.counters["avahi_calls"] = static_cast<double>(platform::avahi_call_count() - avahi_before);
  hubwarden::clear_zeroconf_registrars_for_testing();
}

BENCHMARK_TEMPLATE(BM_UnchangedIdleAdvertising, true)->Name("UnchangedIdleAdvertising/configured");
BENCHMARK_TEMPLATE(BM_UnchangedIdleAdvertising, false)->Name("UnchangedIdleAdvertising/waitingForSetup");

}  // namespace

BENCHMARK_MAIN();
