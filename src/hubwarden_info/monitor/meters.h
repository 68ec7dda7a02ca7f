// The CPU, network and volume meters. The CPU and network meters work by
// differences between two readings and keep their raw counters, their last
// result and its time in the module context; a result younger than fifteen
// seconds is handed out again without reading the hardware, so that the
// several callers of one idle pass or request see one value.
//
// The meters keep no globals; they are as thread-safe as the context handed
// to them.
#pragma once

#include <cstdint>
#include <optional>

#include "plist/value.h"

namespace hubwarden {

// Seconds a meter reading stays current.
inline constexpr double kMeterCacheSeconds = 15.0;

// The CPU meter. Sets *average (hundredths of a percent, averaged over the
// processors that had an earlier reading; nullopt when the processors could
// not be read) and *per_processor (one {"cpuUsage-N": usage} per such
// processor). Returns 0 or the processor service's error code.
int get_cpu_usage(std::optional<plist::Value>* average, plist::Array* per_processor, plist::Dict* context);

// The network meter: {"total_throughput", "total_input", "total_output",
// "interfaces_array"} in bytes per second over the Ethernet-class ("en")
// interfaces, or nullopt when the interface list cannot be read.
std::optional<plist::Dict> get_network_traffic(plist::Dict* context);

// The local, writable volumes as {"name", "totalBytes", "freeBytes"}.
plist::Array get_volumeInfos();

// Seconds since 1970 from the installed clock.
double current_time();

// Truncates toward zero into the unsigned 64-bit range: negative values and
// NaN give 0, values beyond the range saturate.
uint64_t truncate_to_u64(double v);

}  // namespace hubwarden
