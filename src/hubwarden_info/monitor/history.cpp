// History sampling for the host's history service, and the "getHistory"
// reply.
#include "monitor/history.h"

#include <algorithm>
#include <cstdint>
#include <string>

#include "monitor/meters.h"
#include "platform/host_services.h"
#include "platform/meters.h"
#include "platform/registry.h"
#include "request/operations.h"

namespace hubwarden {

namespace {

// Positions of the sample.
enum : size_t {
  kCpuAverage = 0,
  kNetworkTotal = 1,
  kCpu1 = 2,
  kCpu2 = 3,
  kEn0 = 4,
  kCpu3 = 8,
  kCpu4 = 9,
  kNetworkInput = 14,
  kNetworkOutput = 15,
  kBootFreeBytes = 16,
  kBootFreePercent = 17,
};

// A meter value as the history stores it: an unsigned number, or nothing.
std::optional<Value> as_unsigned(const Value* v) {
  if (!v || !v->is_number()) return std::nullopt;
  return Value(v->to_uint64().value_or(0));
}

// The value under key in the index-th one-entry dictionary of the
// per-processor array. The key is looked up by the position's processor
// number, so an array that skips a processor leaves that position empty.
std::optional<Value> processor_usage(const Array& per_processor, size_t index) {
  if (index >= per_processor.size()) return std::nullopt;
  const Dict* entry = per_processor[index].as_dict();
  return entry ? as_unsigned(entry->find("cpuUsage-" + std::to_string(index))) : std::nullopt;
}

// Console legend: one name and one display factor per recorded position.
// Positions 11 to 14 are reserved and have neither. The factors are single
// precision, as consoles have always received them.
struct Legend {
  int number;
  const char* name;
  float factor;
};
constexpr Legend kLegend[] = {
    {1, "CPU_USAGE", 0.01f},
    {2, "NETWORK_THROUGHPUT", 1.0f},
    {3, "CPU1_USAGE", 0.01f},
    {4, "CPU2_USAGE", 0.01f},
    {5, "NETWORK_THROUGHPUT_EN0", 1.0f},
    {6, "NETWORK_THROUGHPUT_EN1", 1.0f},
    {7, "NETWORK_THROUGHPUT_EN2", 1.0f},
    {8, "NETWORK_THROUGHPUT_EN3", 1.0f},
    {9, "CPU3_USAGE", 0.01f},
    {10, "CPU4_USAGE", 0.01f},
    {15, "NETWORK_INPUT", 1.0f},
    {16, "NETWORK_OUTPUT", 1.0f},
    {17, "BOOT_VOLUME_FREE_BYTES", 1.0f},
    {18, "BOOT_VOLUME_FREE_PERCENTAGE", 0.01f},
};

}  // namespace

Array take_history_sample(Dict* context) {
  std::optional<Value> slots[kHistorySampleSize];

  std::optional<Value> average;
  Array per_processor;
  get_cpu_usage(&average, &per_processor, context);
  slots[kCpuAverage] = as_unsigned(average ? &*average : nullptr);
  // One processor is only in the average. The test for the third and
  // fourth is "more than 2", so with exactly three the fourth stays empty.
  if (per_processor.size() > 1) {
    slots[kCpu1] = processor_usage(per_processor, 0);
    slots[kCpu2] = processor_usage(per_processor, 1);
  }
  if (per_processor.size() > 2) {
    slots[kCpu3] = processor_usage(per_processor, 2);
    slots[kCpu4] = processor_usage(per_processor, 3);
  }

  if (std::optional<Dict> traffic = get_network_traffic(context)) {
    slots[kNetworkTotal] = as_unsigned(traffic->find("total_throughput"));
    slots[kNetworkInput] = as_unsigned(traffic->find("total_input"));
    slots[kNetworkOutput] = as_unsigned(traffic->find("total_output"));
    if (const Dict* interfaces = traffic->find_dict("interfaces_array")) {
      for (size_t n = 0; n < 4; ++n)
        if (const Dict* entry = interfaces->find_dict("en" + std::to_string(n)))
          slots[kEn0 + n] = as_unsigned(entry->find("total"));
    }
  }

  platform::VolumeInfo boot;
  if (platform::has<platform::Volumes>() && platform::get<platform::Volumes>().info(1, &boot) == 0) {
    slots[kBootFreeBytes] = Value(boot.free_bytes);
    unsigned __int128 scaled = static_cast<unsigned __int128>(boot.free_bytes) * 10000u;
    uint32_t percent = boot.total_bytes == 0 ? 0 : static_cast<uint32_t>(scaled / boot.total_bytes);
    slots[kBootFreePercent] = Value(percent);
  }

  Array sample;
  sample.reserve(kHistorySampleSize);
  for (std::optional<Value>& slot : slots) sample.push_back(slot ? std::move(*slot) : Value(""));
  return sample;
}

ErrorName update_history_data(Dict* context) {
  Array sample = take_history_sample(context);
  if (!platform::has<platform::HistoryService>()) return nullptr;
  return platform::get<platform::HistoryService>().update(sample, context);
}

ErrorName get_history_data(const Value* variant, const Value& time_scale, ReplySlot& reply, Dict* context) {
  reply.reset();
  std::optional<Array> samples;
  if (platform::has<platform::HistoryService>()) {
    if (ErrorName error = platform::get<platform::HistoryService>().get(variant, time_scale, &samples, context))
      return error;
  }
  uint32_t count = samples ? static_cast<uint32_t>(std::min<size_t>(samples->size(), UINT32_MAX)) : 0;

  Dict out;
  out.set("currentServerTime", Value(truncate_to_u64(current_time())));
  out.set("nbSamples", Value(count));
  out.set("samplesArray", samples ? std::move(*samples) : Array());
  for (const Legend& l : kLegend) {
    std::string prefix = "v" + std::to_string(l.number);
    out.set(prefix + "Legend", Value(l.name));
    out.set(prefix + "Factor", Value(static_cast<double>(l.factor)));
  }
  reply = std::move(out);
  return nullptr;
}

}  // namespace hubwarden
