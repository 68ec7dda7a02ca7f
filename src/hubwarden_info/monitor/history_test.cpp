#include "monitor/history.h"

#include <gtest/gtest.h>

#include "monitor/monitor_test_support.h"
#include "request/operations.h"

namespace hubwarden {
namespace {

using plist::Array;
using plist::Dict;
using plist::Value;
using testing::keys_of;

class HistoryTest : public testing::MonitorTest {
 protected:
  // Puts meter readings into the context as a reading taken just now, so
  // the meters hand them out from their cache.
  void cached_cpu(uint64_t average, Array per_processor) {
    context_.set("cpuUsageSampleTime", plist::Date{clock_.time});
    context_.set("cpuUsage", average);
    context_.set("cpuUsagesArray", std::move(per_processor));
  }
  void cached_network(Dict interfaces) {
    context_.set("networkThroughputSampleTime", plist::Date{clock_.time});
    context_.set("networkThroughput", Dict{{"total_throughput", uint64_t{30}},
                                           {"total_input", uint64_t{10}},
                                           {"total_output", uint64_t{20}},
                                           {"interfaces_array", std::move(interfaces)}});
  }
  static Dict usage(int processor, uint64_t value) { return Dict{{"cpuUsage-" + std::to_string(processor), value}}; }
  static Dict rate(uint64_t total) { return Dict{{"input", total}, {"output", uint64_t{0}}, {"total", total}}; }

  Dict context_;
};

const Value kEmpty("");

TEST_F(HistoryTest, ProcessorPositionsDependOnHowManyProcessorsReported) {
  cached_network(Dict{});

  cached_cpu(5000, {usage(0, 5000)});
  Array one = take_history_sample(&context_);
  ASSERT_EQ(one.size(), 18u);
  EXPECT_EQ(one[0], Value(uint64_t{5000}));
  for (size_t p : {2, 3, 8, 9}) EXPECT_EQ(one[p], kEmpty) << p;

  cached_cpu(150, {usage(0, 100), usage(1, 200)});
  Array two = take_history_sample(&context_);
  EXPECT_EQ(two[2], Value(uint64_t{100}));
  EXPECT_EQ(two[3], Value(uint64_t{200}));
  EXPECT_EQ(two[8], kEmpty);
  EXPECT_EQ(two[9], kEmpty);

  // Three processors fill position 8; the fourth lookup fails and 9 stays
  // empty.
  cached_cpu(200, {usage(0, 100), usage(1, 200), usage(2, 300)});
  Array three = take_history_sample(&context_);
  EXPECT_EQ(three[8], Value(uint64_t{300}));
  EXPECT_EQ(three[9], kEmpty);

  cached_cpu(250, {usage(0, 100), usage(1, 200), usage(2, 300), usage(3, 400), usage(4, 500)});
  Array five = take_history_sample(&context_);
  EXPECT_EQ(five[9], Value(uint64_t{400}));

  // Entries are looked up by their position's processor number: an array
  // that skipped processor 0 leaves positions 2 and 3 empty.
  cached_cpu(250, {usage(1, 200), usage(2, 300)});
  Array skipped = take_history_sample(&context_);
  EXPECT_EQ(skipped[2], kEmpty);
  EXPECT_EQ(skipped[3], kEmpty);
}

TEST_F(HistoryTest, NetworkAndBootVolumePositions) {
  cached_cpu(0, {});
  cached_network(Dict{{"en0", rate(7)}, {"en2", rate(9)}, {"en4", rate(11)}, {"enp0s3", rate(13)}});
  volumes_.volumes = {volume("Boot", 3000, 1000), volume("Other", 1, 1)};
  Array s = take_history_sample(&context_);
  Array expected = {uint64_t{0},
                    uint64_t{30},
                    "",
                    "",
                    uint64_t{7},
                    "",
                    uint64_t{9},
                    "",
                    "",
                    "",
                    "",
                    "",
                    "",
                    "",
                    uint64_t{10},
                    uint64_t{20},
                    uint64_t{1000},
                    uint32_t{3333}};
  EXPECT_EQ(s, expected);

  // A volume larger than the 64-bit product free x 10000 still gives its
  // percentage; an empty one gives 0; no boot volume leaves both empty.
  volumes_.volumes = {volume("Huge", UINT64_MAX, UINT64_MAX / 2)};
  EXPECT_EQ(take_history_sample(&context_)[17], Value(uint32_t{4999}));
  volumes_.volumes = {volume("Empty", 0, 0)};
  EXPECT_EQ(take_history_sample(&context_)[17], Value(uint32_t{0}));
  volumes_.volumes.clear();
  Array none = take_history_sample(&context_);
  EXPECT_EQ(none[16], kEmpty);
  EXPECT_EQ(none[17], kEmpty);
}

TEST_F(HistoryTest, FirstSampleAfterStartAndAFailingNetworkMeter) {
  cpu_.ticks = {ticks(1, 1, 1), ticks(1, 1, 1)};
  net_.interfaces = {{"en0", 10, 10}, {"lo", 5, 5}};
  EXPECT_EQ(update_history_data(&context_), nullptr);
  ASSERT_EQ(history_.stored.size(), 1u);
  Array first = history_.stored[0].sample;
  Array expected = {uint64_t{0}, uint64_t{0}, "", "", uint64_t{0}, "",          "",          "", "",
                    "",          "",          "", "", "",          uint64_t{0}, uint64_t{0}, "", ""};
  EXPECT_EQ(first, expected);

  // Without a readable interface list every network position is empty.
  advance(20);
  net_.fail = true;
  update_history_data(&context_);
  Array later = history_.stored.back().sample;
  for (size_t p : {1, 4, 14, 15}) EXPECT_EQ(later[p], kEmpty) << p;

  history_.update_error = kCannotMallocErr;
  EXPECT_STREQ(update_history_data(&context_), kCannotMallocErr);
}

TEST_F(HistoryTest, HistoryReplyCarriesTheSamplesAndTheLegend) {
  clock_.time = 1.7e9 + 0.9;
  ReplySlot reply;
  EXPECT_EQ(get_history_data(nullptr, Value(3600), reply, &context_), nullptr);
  ASSERT_TRUE(reply);
  std::vector<std::string> expected_keys = {"currentServerTime", "nbSamples", "samplesArray"};
  for (int n : {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 15, 16, 17, 18}) {
    expected_keys.push_back("v" + std::to_string(n) + "Legend");
    expected_keys.push_back("v" + std::to_string(n) + "Factor");
  }
  EXPECT_EQ(keys_of(*reply), expected_keys);
  EXPECT_EQ(*reply->find("currentServerTime"), Value(uint64_t{1700000000}));
  EXPECT_EQ(*reply->find("nbSamples"), Value(uint32_t{0}));
  EXPECT_EQ(*reply->find("samplesArray"), Value(Array{}));
  EXPECT_EQ(*reply->find_string("v10Legend"), "CPU4_USAGE");
  EXPECT_EQ(*reply->find_string("v17Legend"), "BOOT_VOLUME_FREE_BYTES");
  // Single-precision factors, widened exactly.
  EXPECT_EQ(*reply->find("v1Factor")->as_real(), static_cast<double>(0.01f));
  EXPECT_NE(*reply->find("v1Factor")->as_real(), 0.01);
  EXPECT_EQ(*reply->find("v18Factor")->as_real(), static_cast<double>(0.01f));
  EXPECT_EQ(*reply->find("v16Factor")->as_real(), 1.0);

  // The variant and time scale reach the service untouched.
  history_.stored = {{history_.now - 10, Array(18, Value(uint64_t{1}))}, {history_.now, Array(18, Value(""))}};
  EXPECT_EQ(get_history_data(nullptr, Value(60), reply, &context_), nullptr);
  EXPECT_EQ(*reply->find("nbSamples"), Value(uint32_t{2}));
  EXPECT_EQ(reply->find_array("samplesArray")->size(), 2u);
  Value variant("v1");
  get_history_data(&variant, Value(5.5), reply, &context_);
  EXPECT_EQ(history_.variants_asked.back(), std::optional<Value>(variant));
  EXPECT_EQ(history_.time_scales_asked.back(), Value(5.5));

  history_.get_error = "HISTORY_READ_ERR";
  EXPECT_STREQ(get_history_data(nullptr, Value(60), reply, &context_), "HISTORY_READ_ERR");
  EXPECT_FALSE(reply);
}

}  // namespace
}  // namespace hubwarden
