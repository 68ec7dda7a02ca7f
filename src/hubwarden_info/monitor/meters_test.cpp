#include "monitor/meters.h"

#include <gtest/gtest.h>

#include "monitor/monitor_test_support.h"
#include "request/operations.h"

namespace hubwarden {
namespace {

using plist::Array;
using plist::Dict;
using plist::Value;
using testing::keys_of;

class MetersTest : public testing::MonitorTest {
 protected:
  struct Cpu {
    std::optional<Value> average;
    Array per_processor;
    int rc;
  };
  Cpu cpu() {
    Cpu out;
    out.rc = get_cpu_usage(&out.average, &out.per_processor, &context_);
    return out;
  }
  static uint64_t usage(const Array& per_processor, size_t i) {
    return *per_processor.at(i).as_dict()->find("cpuUsage-" + std::to_string(i))->as_unsigned();
  }
  platform::InterfaceCounters counters(std::string name, uint64_t in, uint64_t out) {
    return {std::move(name), in, out};
  }

  Dict context_;
};

TEST_F(MetersTest, CpuUsageComesFromTheDifferenceOfTwoReadingsAndIsCachedFifteenSeconds) {
  cpu_.ticks = {ticks(100, 100, 800, 50), ticks(0, 0, 1000)};
  Cpu first = cpu();
  EXPECT_EQ(first.rc, 0);
  EXPECT_EQ(*first.average, Value(uint64_t{0}));
  EXPECT_TRUE(first.per_processor.empty());
  EXPECT_EQ(context_.find("cpuUsageSampleTime")->as_date()->seconds, clock_.time);
  EXPECT_TRUE(plist::is_flag_set(context_.find("contextDirty")));
  EXPECT_EQ(*context_.find_dict("cpuUsageStore")->find("total_ticks-0"), Value(1000.0));

  // Within fifteen seconds (and with the clock set back) nothing is read and
  // the context stays exactly as it was.
  Dict before = context_;
  cpu_.ticks = {ticks(999, 999, 999), ticks(999, 999, 999)};
  for (double step : {14.9, -100.0}) {
    advance(step);
    Cpu cached = cpu();
    EXPECT_EQ(*cached.average, Value(uint64_t{0}));
    EXPECT_EQ(context_, before);
  }
  EXPECT_EQ(cpu_.reads, 1);

  // Processor 0: 300 busy of 400 ticks (nice ticks are not counted);
  // processor 1: idle throughout.
  clock_.time = 1.7e9 + 15;
  cpu_.ticks = {ticks(250, 250, 900, 500), ticks(0, 0, 1400)};
  Cpu second = cpu();
  ASSERT_EQ(second.per_processor.size(), 2u);
  EXPECT_EQ(usage(second.per_processor, 0), 7500u);
  EXPECT_EQ(usage(second.per_processor, 1), 0u);
  EXPECT_EQ(*second.average, Value(uint64_t{3750}));
  EXPECT_EQ(*context_.find("cpuUsage"), Value(uint64_t{3750}));
  EXPECT_EQ(*context_.find_array("cpuUsagesArray"), second.per_processor);
}

TEST_F(MetersTest, CpuCounterEdgeCases) {
  // Processor 0's idle counter wraps; processor 1 made no progress at all;
  // processor 2 is offline, so only the first two entries are read.
  cpu_.ticks = {ticks(1000, 1000, 0xFFFFFF00u), ticks(10, 10, 10), ticks(5, 5, 5, 0, false)};
  cpu();
  advance(20);
  cpu_.ticks = {ticks(1100, 1100, 0x00000100u), ticks(10, 10, 10), ticks(9, 9, 9, 0, false)};
  Cpu after = cpu();
  ASSERT_EQ(after.per_processor.size(), 2u);
  // Idle advanced 0x200 = 512 with the wrap correction, while the total
  // (user + system + idle, 32-bit each) advanced 200 + 512 = 712 once its
  // own wrap is corrected too.
  EXPECT_EQ(usage(after.per_processor, 0), static_cast<uint64_t>(10000.0 - 512.0 * 10000.0 / 712.0));
  EXPECT_EQ(usage(after.per_processor, 1), 0u);
  EXPECT_FALSE(context_.find_dict("cpuUsageStore")->contains("idle_ticks-2"));

  // A processor that appears later has no earlier reading and contributes
  // neither an entry nor a count.
  advance(20);
  cpu_.ticks = {ticks(1200, 1200, 0x00000100u), ticks(10, 10, 10), ticks(9, 9, 9)};
  Cpu grown = cpu();
  ASSERT_EQ(grown.per_processor.size(), 2u);
  EXPECT_EQ(usage(grown.per_processor, 0), 10000u);
  EXPECT_EQ(*grown.average, Value(uint64_t{5000}));
}

TEST_F(MetersTest, FailedProcessorReadKeepsTheNewSampleTimeAndTheOldValues) {
  cpu_.ticks = {ticks(1, 1, 1)};
  cpu();
  advance(15);
  cpu_.ticks = {ticks(2, 2, 2)};
  cpu();
  Value old_usage = *context_.find("cpuUsage");

  advance(30);
  cpu_.error = 5;
  Cpu failed = cpu();
  EXPECT_EQ(failed.rc, 5);
  EXPECT_FALSE(failed.average);
  EXPECT_TRUE(failed.per_processor.empty());
  EXPECT_EQ(context_.find("cpuUsageSampleTime")->as_date()->seconds, clock_.time);

  advance(1);
  Cpu cached = cpu();
  EXPECT_EQ(*cached.average, old_usage);
}

TEST_F(MetersTest, NetworkRatesCountOnlyEthernetClassInterfaces) {
  // eth0 is not an "en" name: the filter is by those two letters only.
  net_.interfaces = {counters("lo", 5, 5), counters("eth0", 100, 100), counters("en0", 1000, 2000),
                     counters("enp0s3", uint64_t{1} << 40, 0)};
  std::optional<Dict> first = get_network_traffic(&context_);
  ASSERT_TRUE(first);
  EXPECT_EQ(keys_of(*first),
            (std::vector<std::string>{"total_throughput", "total_input", "total_output", "interfaces_array"}));
  EXPECT_EQ(keys_of(*first->find_dict("interfaces_array")), (std::vector<std::string>{"en0", "enp0s3"}));
  EXPECT_EQ(*first->find("total_throughput"), Value(uint64_t{0}));
  EXPECT_EQ(*context_.find_dict("networkThroughputStore")->find("if_obytes-en0"), Value(uint64_t{2000}));

  // 20.9 seconds later counts as 20 whole seconds. enp0s3's 64-bit counter
  // went backwards: the correction adds only 2^32. en1 is new: rates 0.
  advance(20.9);
  net_.interfaces = {counters("lo", 9, 9), counters("en0", 3000, 2400),
                     counters("enp0s3", (uint64_t{1} << 40) - 1000, 0), counters("en1", 777777, 777777)};
  std::optional<Dict> second = get_network_traffic(&context_);
  ASSERT_TRUE(second);
  const Dict& interfaces = *second->find_dict("interfaces_array");
  EXPECT_EQ(*interfaces.find_dict("en0"),
            (Dict{{"input", uint64_t{100}}, {"output", uint64_t{20}}, {"total", uint64_t{120}}}));
  EXPECT_EQ(*interfaces.find_dict("enp0s3")->find("input"), Value(((uint64_t{1} << 32) - 1000) / 20));
  EXPECT_EQ(*interfaces.find_dict("en1")->find("total"), Value(uint64_t{0}));
  uint64_t in = 100 + ((uint64_t{1} << 32) - 1000) / 20;
  EXPECT_EQ(*second->find("total_input"), Value(in));
  EXPECT_EQ(*second->find("total_output"), Value(uint64_t{20}));
  EXPECT_EQ(*second->find("total_throughput"), Value(in + 20));
  EXPECT_EQ(*context_.find_dict("networkThroughput"), *second);

  // Cached within fifteen seconds; a failing read after that yields nothing
  // but still moves the sample time.
  advance(10);
  EXPECT_EQ(*get_network_traffic(&context_), *second);
  advance(10);
  net_.fail = true;
  EXPECT_FALSE(get_network_traffic(&context_));
  EXPECT_EQ(context_.find("networkThroughputSampleTime")->as_date()->seconds, clock_.time);
  EXPECT_EQ(*get_network_traffic(&context_), *second);
}

TEST_F(MetersTest, VolumeListSkipsLockedAndNonLocalVolumes) {
  platform::FakeVolume locked = volume("Locked", 10, 5);
  locked.info.software_locked = true;
  platform::FakeVolume burned = volume("Burned", 10, 5);
  burned.info.hardware_locked = true;
  platform::FakeVolume unknown = volume("Unknown", 30, 3);
  unknown.attributes.reset();  // attributes unreadable: still listed
  platform::FakeVolume nameless = volume("x", 40, 4, false, true);
  nameless.info.name.reset();
  volumes_.volumes = {volume("Boot", 100, 50), locked, burned, volume("Share", 10, 5, false, false), unknown, nameless};

  Array expected = {Dict{{"name", "Boot"}, {"totalBytes", uint64_t{100}}, {"freeBytes", uint64_t{50}}},
                    Dict{{"name", "Unknown"}, {"totalBytes", uint64_t{30}}, {"freeBytes", uint64_t{3}}},
                    Dict{{"name", ""}, {"totalBytes", uint64_t{40}}, {"freeBytes", uint64_t{4}}}};
  Array got = get_volumeInfos();
  EXPECT_EQ(got, expected);
  EXPECT_EQ(keys_of(*got[0].as_dict()), (std::vector<std::string>{"name", "totalBytes", "freeBytes"}));
}

TEST_F(MetersTest, HardwareInfoOnFreshAndWarmContexts) {
  cpu_.ticks = {ticks(1, 1, 1)};
  net_.interfaces = {counters("en0", 0, 0)};
  volumes_.volumes = {volume("Boot", 100, 50)};

  ReplySlot reply;
  EXPECT_EQ(get_hardware_info(reply, nullptr, false, &context_), nullptr);
  ASSERT_TRUE(reply);
  EXPECT_EQ(keys_of(*reply), (std::vector<std::string>{"volumeInfosArray", "cpuUsageBy100", "cpuUsagesBy100Array",
                                                       "networkThroughputBy1K", "networkThroughput"}));
  EXPECT_EQ(*reply->find("cpuUsageBy100"), Value(uint64_t{0}));
  EXPECT_EQ(*reply->find("cpuUsagesBy100Array"), Value(Array{}));
  EXPECT_EQ(*reply->find("networkThroughput"), Value(uint64_t{0}));
  EXPECT_EQ(reply->find_array("volumeInfosArray")->size(), 1u);

  // With both CPU values in the context the CPU meter is not asked, however
  // old they are; the network meter runs as usual.
  context_.set("cpuUsage", uint64_t{4200});
  context_.set("cpuUsagesArray", Array{Dict{{"cpuUsage-0", uint64_t{4200}}}});
  advance(3600);
  net_.interfaces = {counters("en0", 3600 * 3000, 3600 * 72)};
  int reads = cpu_.reads;
  EXPECT_EQ(get_hardware_info(reply, nullptr, true, &context_), nullptr);
  EXPECT_EQ(cpu_.reads, reads);
  EXPECT_EQ(*reply->find("cpuUsageBy100"), Value(uint64_t{4200}));
  EXPECT_EQ(*reply->find("networkThroughput"), Value(uint64_t{3072}));
  EXPECT_EQ(*reply->find("networkThroughputBy1K"), Value(uint64_t{3}));

  // An unreadable interface list reports 0.
  advance(3600);
  net_.fail = true;
  EXPECT_EQ(get_hardware_info(reply, nullptr, true, &context_), nullptr);
  EXPECT_EQ(*reply->find("networkThroughput"), Value(uint64_t{0}));
}

}  // namespace
}  // namespace hubwarden
