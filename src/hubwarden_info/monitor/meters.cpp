// The CPU, network and volume meters and the "getHardwareInfo" reply built
// from them.
#include "monitor/meters.h"

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "platform/meters.h"
#include "platform/registry.h"
#include "request/operations.h"

namespace hubwarden {

namespace {

constexpr const char* kCpuSampleTime = "cpuUsageSampleTime";
constexpr const char* kCpuStore = "cpuUsageStore";
constexpr const char* kCpuUsage = "cpuUsage";
constexpr const char* kCpuUsages = "cpuUsagesArray";
constexpr const char* kNetSampleTime = "networkThroughputSampleTime";
constexpr const char* kNetStore = "networkThroughputStore";
constexpr const char* kNetResult = "networkThroughput";

// Counters that run backwards wrapped at 32 bits; the correction is the
// same for the 64-bit byte counters, which the history's arithmetic
// expects.
constexpr double kWrap = 4294967296.0;
constexpr uint64_t kWrap64 = 4294967296ULL;

// Volume indexes end at the first error; a bound keeps a misbehaving
// service from looping forever.
constexpr int kMaxVolumes = 4096;

std::optional<double> sample_time(const Dict& context, const char* key) {
  const Value* v = context.find(key);
  if (!v) return std::nullopt;
  if (const plist::Date* d = v->as_date()) return d->seconds;
  return v->is_number() ? v->to_double() : std::nullopt;
}

// The cache test shared by both meters. Returns true when the last reading
// is still current. Otherwise records now as the new reading's time (even
// if the reading then fails) and sets *elapsed to the time since the last
// one (0 when there was none).
bool reading_is_current(Dict* context, const char* time_key, double now, double* elapsed) {
  *elapsed = 0;
  if (!context) return false;
  if (std::optional<double> last = sample_time(*context, time_key)) {
    // A clock set back gives a negative difference, which counts as current.
    if (now - *last < kMeterCacheSeconds) return true;
    *elapsed = now - *last;
  }
  context->set(time_key, plist::Date{now});
  context->set("contextDirty", true);
  return false;
}

std::string numbered(const char* prefix, size_t i) { return prefix + std::to_string(i); }

uint64_t byte_rate(uint64_t current, const Dict& previous, const std::string& key, uint64_t elapsed) {
  const Value* before = previous.find_number(key);
  if (!before || elapsed == 0) return 0;
  uint64_t prev = before->to_uint64().value_or(0);
  uint64_t delta = (current < prev ? current + kWrap64 : current) - prev;
  return delta / elapsed;
}

}  // namespace

uint64_t truncate_to_u64(double v) {
  if (!(v > 0)) return 0;
  if (v >= 18446744073709551616.0) return UINT64_MAX;
  return static_cast<uint64_t>(v);
}

double current_time() {
  if (platform::has<platform::Clock>()) return platform::get<platform::Clock>().now();
  using namespace std::chrono;
  return duration<double>(system_clock::now().time_since_epoch()).count();
}

int get_cpu_usage(std::optional<Value>* average, Array* per_processor, Dict* context) {
  average->reset();
  per_processor->clear();
  double elapsed;
  if (reading_is_current(context, kCpuSampleTime, current_time(), &elapsed)) {
    if (const Value* v = context->find(kCpuUsage)) *average = *v;
    if (const Array* a = context->find_array(kCpuUsages)) *per_processor = *a;
    return 0;
  }

  std::vector<platform::ProcessorTicks> ticks;
  if (!platform::has<platform::ProcessorStats>()) return -1;
  if (int rc = platform::get<platform::ProcessorStats>().read(&ticks); rc != 0) return rc;
  size_t running = 0;
  for (const platform::ProcessorTicks& t : ticks)
    if (t.running) ++running;

  Dict previous;
  if (context)
    if (const Dict* p = context->find_dict(kCpuStore)) previous = *p;
  Dict store;
  double sum = 0;
  uint64_t counted = 0;
  for (size_t i = 0; i < running && i < ticks.size(); ++i) {
    // Nice ticks stay out of the total, as the console's history has always
    // been computed that way.
    double idle = ticks[i].idle;
    double total = static_cast<double>(ticks[i].user) + ticks[i].system + ticks[i].idle;
    std::string idle_key = numbered("idle_ticks-", i);
    std::string total_key = numbered("total_ticks-", i);
    store.set(idle_key, idle);
    store.set(total_key, total);
    const Value* prev_idle_v = previous.find_number(idle_key);
    const Value* prev_total_v = previous.find_number(total_key);
    if (!prev_idle_v || !prev_total_v) continue;
    double prev_idle = prev_idle_v->to_double().value_or(0);
    double prev_total = prev_total_v->to_double().value_or(0);
    if (prev_idle > idle) idle += kWrap;
    if (prev_total > total) total += kWrap;
    double usage = total > prev_total ? 10000.0 - (idle - prev_idle) * 10000.0 / (total - prev_total) : 0.0;
    sum += usage;
    ++counted;
    Dict entry;
    entry.set(numbered("cpuUsage-", i), Value(truncate_to_u64(usage)));
    per_processor->push_back(std::move(entry));
  }
  uint64_t mean = truncate_to_u64(sum) / (counted > 0 ? counted : 1);
  *average = Value(mean);
  if (context) {
    context->set(kCpuStore, std::move(store));
    context->set(kCpuUsage, Value(mean));
    context->set(kCpuUsages, *per_processor);
  }
  return 0;
}

std::optional<Dict> get_network_traffic(Dict* context) {
  double elapsed;
  if (reading_is_current(context, kNetSampleTime, current_time(), &elapsed)) {
    if (const Dict* cached = context->find_dict(kNetResult)) return *cached;
    return std::nullopt;
  }

  std::vector<platform::InterfaceCounters> rows;
  if (!platform::has<platform::InterfaceStats>() || !platform::get<platform::InterfaceStats>().read(&rows))
    return std::nullopt;

  Dict previous;
  if (context)
    if (const Dict* p = context->find_dict(kNetStore)) previous = *p;
  uint64_t seconds = truncate_to_u64(elapsed);
  Dict store;
  Dict interfaces;
  uint64_t total = 0, total_in = 0, total_out = 0;
  for (const platform::InterfaceCounters& row : rows) {
    if (row.name.compare(0, 2, "en") != 0) continue;
    std::string in_key = "if_ibytes-" + row.name;
    std::string out_key = "if_obytes-" + row.name;
    store.set(in_key, Value(row.input_bytes));
    store.set(out_key, Value(row.output_bytes));
    uint64_t in = byte_rate(row.input_bytes, previous, in_key, seconds);
    uint64_t out = byte_rate(row.output_bytes, previous, out_key, seconds);
    total += in + out;
    total_in += in;
    total_out += out;
    interfaces.set(row.name, Dict{{"input", Value(in)}, {"output", Value(out)}, {"total", Value(in + out)}});
  }
  Dict result{{"total_throughput", Value(total)},
              {"total_input", Value(total_in)},
              {"total_output", Value(total_out)},
              {"interfaces_array", std::move(interfaces)}};
  if (context) {
    context->set(kNetStore, std::move(store));
    context->set(kNetResult, result);
  }
  return result;
}

Array get_volumeInfos() {
  Array volumes;
  if (!platform::has<platform::Volumes>()) return volumes;
  platform::Volumes& service = platform::get<platform::Volumes>();
  for (int index = 1; index <= kMaxVolumes; ++index) {
    platform::VolumeInfo info;
    if (service.info(index, &info) != 0) break;
    if (info.hardware_locked || info.software_locked) continue;
    // Network and virtual volumes sit on no local bus. A volume whose
    // attributes cannot be read is listed rather than hidden.
    platform::VolumeAttributes attributes;
    if (service.attributes(index, &attributes) == 0 && !attributes.internal_bus && !attributes.external_bus) continue;
    volumes.push_back(Dict{{"name", Value(info.name.value_or(""))},
                           {"totalBytes", Value(info.total_bytes)},
                           {"freeBytes", Value(info.free_bytes)}});
  }
  return volumes;
}

ErrorName get_hardware_info(ReplySlot& reply, const Value*, bool, Dict* context) {
  Array volumes = get_volumeInfos();

  // The context's values are used as they stand, even when older than the
  // meter's cache; the meter only runs when one of them is missing.
  std::optional<Value> average;
  Array per_processor;
  const Value* cached_average = context ? context->find(kCpuUsage) : nullptr;
  const Value* cached_array = context ? context->find(kCpuUsages) : nullptr;
  if (cached_average && cached_array) {
    average = *cached_average;
    if (const Array* a = cached_array->as_array()) per_processor = *a;
  } else {
    get_cpu_usage(&average, &per_processor, context);
  }

  std::optional<Dict> traffic = get_network_traffic(context);
  const Value* throughput = traffic ? traffic->find("total_throughput") : nullptr;
  uint64_t bytes_per_second = throughput ? throughput->to_uint64().value_or(0) : 0;

  Dict out;
  out.set("volumeInfosArray", std::move(volumes));
  out.set("cpuUsageBy100", average ? *average : Value(uint64_t{0}));
  out.set("cpuUsagesBy100Array", std::move(per_processor));
  out.set("networkThroughputBy1K", Value(bytes_per_second >> 10));
  out.set("networkThroughput", throughput ? *throughput : Value(uint64_t{0}));
  reply = std::move(out);
  return nullptr;
}

}  // namespace hubwarden
